#pragma once

// The fields of the entries (systemd.journal-fields(7)) that the extension writes to the journal for dropped flows, and
// that a companion reads there.
//
//   an entry for the flows to a host from a browser   kDropHostField, kDropBrowserField and kDropCountField
//   an entry for flows without their own entry        kDropCountField alone
//
// The texts in the fields are printable ASCII: DropRecords writes spaces, backslashes and all other bytes as \xNN.
namespace orvane {

inline constexpr const char* kDropMessageID =
    "2fd9e68f897048cbb537f22378a38dac";  // the field MESSAGE_ID of all entries
inline constexpr const char* kDropHostField = "ORVANE_HOST";
inline constexpr const char* kDropBrowserField = "ORVANE_BROWSER";  // a bundle identifier; empty if it is unknown
inline constexpr const char* kDropCountField = "ORVANE_COUNT";      // how many flows the entry stands for: decimal

}  // namespace orvane
