#pragma once

#include <cstdint>

#include "companion/client/Client.h"
#include "companion/list/BlockList.h"

// How the extension comes to hold what the list says. The general provider does not look at the date of a suspension:
// a suspended name is one that the extension does not hold until the keeper sends it again. The provider for one
// browser does look, so the date goes along; it is set before the name is taken out, never after it has come back.
namespace orvane {

// A new connection: all that the extension is to hold, whatever it held before. Gives the number of edits that the
// extension counts for it; throws ClientError.
uint64_t send_all(Client& client, const HeldNames& list);

// An extension that holds `before`: only what differs, so that what others did beside us stays. As above.
uint64_t send_difference(Client& client, const HeldNames& before, const HeldNames& after);

// More names than this differ: then the whole list goes out, in one message, and takes away what others did.
inline constexpr size_t kLargestDifference = 4096;
bool is_sent_whole(const HeldNames& before, const HeldNames& after);

// Lets the suspensions that have passed by `now` come to their end: their names are held, and nextChange moves on.
void end_suspensions(HeldNames& list, Moment now);

}  // namespace orvane
