#include <cstdint>
#include <string>
#include <string_view>

#include "companion/list/BlockList.h"
#include "companion/list/ListImport.h"
#include "companion/text/Input.h"

using namespace orvane;

namespace {

void require(bool holds) {
  if (!holds) __builtin_trap();
}

void check(const BlockList& list) {
  const std::string text = list.text();
  const BlockList again = BlockList::parse(text);
  require(again.text() == text);
  require(again.sites() == list.sites());
  for (const ListedSite& site : list.sites()) {
    require(*list.find(site.host) == site);
    const Decision decision = decide(list, site.host, Moment());
    require(decision.blocking != nullptr || decision.suspended != nullptr || decision.exception != nullptr);
  }
}

}  // namespace

// Reads the bytes as the list's file, and then as a list to import.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  BlockList list = BlockList::parse(text);
  check(list);
  const HeldNames held = held_names(list, Moment());
  require(held.suspended.empty() == !held.nextChange.has_value());
  try {
    auto ignore = [](size_t, std::string_view, const std::string&) {};
    const ImportedSites imported = read_import(text, std::nullopt, ignore, nullptr);
    const ImportCounts counts = put_imported(list, imported, false);
    require(counts.added + counts.changed + counts.unchanged == imported.sites.size());
    check(list);
    require(put_imported(list, imported, false).unchanged == imported.sites.size());
  } catch (const InputError&) {  // the bytes are not a list
  }
  for (const ListedSite& site : list.sites()) require(list.remove(site.host) && !list.remove(site.host));
  require(BlockList::parse(list.text()).size() == 0);
  return 0;
}
