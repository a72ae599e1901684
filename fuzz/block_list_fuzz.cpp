#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "companion/list/BlockList.h"
#include "companion/list/ListImport.h"
#include "companion/list/ReadOnlyList.h"
#include "companion/list/UnitedNames.h"
#include "companion/text/Input.h"

using namespace orvane;

namespace {

void require(bool holds) {
  if (!holds) __builtin_trap();
}

// The sites, in an order that does not depend on when they were added.
std::vector<ListedSite> sorted_sites(const BlockList& list) {
  std::vector<ListedSite> sites = list.sites();
  const auto key = [](const ListedSite& site) { return std::tie(site.group, site.host); };
  std::sort(sites.begin(), sites.end(), [&](const auto& one, const auto& other) { return key(one) < key(other); });
  return sites;
}

void check(const BlockList& list) {
  const std::string text = list.text();
  const BlockList again = BlockList::parse(text);
  require(again.text() == text);
  require(again.groups() == list.groups());
  require(sorted_sites(again) == sorted_sites(list));
  for (const ListedSite& site : list.sites()) {
    require(*list.find(site.host, site.group) == site);
    const Decision decision = decide(list, site.host, Moment());
    require(decision.blocking != nullptr || decision.suspended != nullptr || decision.exception != nullptr ||
            decision.inactive != nullptr);
  }
}

// Checks unite() for three lists with the same text: the machine's list, a drop-in and a subscription.
void check_united(std::string_view text, const HeldNames& held) {
  const PackedNames own(std::vector<std::string_view>(held.names.begin(), held.names.end()));
  std::vector<RankedNames> lists{{Rank::Own, &own}};
  const ReadOnlyList dropIn = ReadOnlyList::parse(text, ListKind::DropIn);
  const ReadOnlyList subscription = ReadOnlyList::parse(text, ListKind::Subscription);
  require(dropIn.badLineCount >= dropIn.badLines.size() && subscription.rank() == Rank::Open);
  for (const ReadOnlyList* list : {&dropIn, &subscription}) {
    for (const auto& section : list->sections) {
      size_t count = 0;
      for (std::string_view name : section.names) {
        require(section.names.contains(name) && !host_of(name).empty());
        ++count;
      }
      require(count == section.names.size());
      lists.push_back({list->rank(), &section.names});
    }
  }
  const std::vector<std::string> names = unite(lists, held.suspended);
  require(std::is_sorted(names.begin(), names.end()));
  require(std::adjacent_find(names.begin(), names.end()) == names.end());
  // The extension must hold all names of a drop-in that is not suspendable.
  for (const RankedNames& list : lists) {
    if (list.rank != Rank::Fixed) continue;
    for (std::string_view name : *list.names)
      require(std::binary_search(names.begin(), names.end(), std::string(name)));
  }
}

}  // namespace

// Reads the bytes as the list's file, as read-only lists, and then as a list to import.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  BlockList list = BlockList::parse(text);
  check(list);
  const HeldNames held = held_names(list, Moment());
  require(held.suspended.empty() || held.nextChange.has_value());
  check_united(text, held);
  try {
    auto ignore = [](size_t, std::string_view, const std::string&) {};
    const ImportedSites imported = read_import(text, {}, ignore, nullptr);
    const ImportCounts counts = put_imported(list, imported, false);
    require(counts.added + counts.changed + counts.unchanged == imported.sites.size());
    check(list);
    require(put_imported(list, imported, false).unchanged == imported.sites.size());
  } catch (const InputError&) {  // the bytes are not a list
  }
  for (const ListedSite& site : list.sites())
    require(list.remove(site.host, site.group) && !list.remove(site.host, site.group));
  require(BlockList::parse(list.text()).size() == 0);
  return 0;
}
