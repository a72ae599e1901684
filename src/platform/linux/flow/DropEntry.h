#pragma once

// The entries in the journal (systemd.journal-fields(7)) that the extension writes for dropped flows. Companions read
// these entries.
//
//   an entry for a dropped flow     kDropHostField and kDropBrowserField
//   a count of flows without entry  kDropLeftOutField, a decimal number
//
// The texts in the fields are printable ASCII: DropRecords escapes every other byte as \xNN.
namespace orvane {

inline constexpr const char* kDropMessageID =
    "2fd9e68f897048cbb537f22378a38dac";  // the field MESSAGE_ID of all entries
inline constexpr const char* kDropHostField = "ORVANE_HOST";
inline constexpr const char* kDropBrowserField = "ORVANE_BROWSER";  // a bundle identifier; empty if it is unknown
inline constexpr const char* kDropLeftOutField = "ORVANE_LEFT_OUT";

}  // namespace orvane
