#pragma once

#include <cstdint>

#include "companion/client/Client.h"
#include "companion/list/BlockList.h"

// Sends the list to the extension. FilterDataProvider ignores the date at which a suspension ends, so the keeper
// removes a suspended name and adds it again at that date. PLSafariFilterDataProvider honours the date, so the keeper
// also sends the date, before it removes the name. It sends no date for a name that the extension does not hold,
// because the extension would ignore the date.
namespace orvane {

// Replaces all host names that the extension holds. Returns how many edits the extension counts for the messages that
// this function sends. Throws ClientError.
uint64_t send_all(Client& client, const HeldNames& list);

// Sends only the difference to an extension that holds `before`. Other clients' edits stay. Returns and throws as
// send_all() does.
uint64_t send_difference(Client& client, const HeldNames& before, const HeldNames& after);

// If more names than this differ, one message with the whole list is faster.
inline constexpr size_t kLargestDifference = 4096;
bool needs_whole_list(const HeldNames& before, const HeldNames& after);

}  // namespace orvane
