#pragma once

namespace orvane {

// The socket on which the journal takes entries (systemd.io/JOURNAL_NATIVE_PROTOCOL).
inline constexpr char kJournalSocket[] = "/run/systemd/journal/socket";

// The field by which `journalctl -t OrvaneSE` finds the extension's entries.
inline constexpr char kJournalIdentifier[] = "SYSLOG_IDENTIFIER=OrvaneSE";

}  // namespace orvane
