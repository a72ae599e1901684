#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "companion/statistics/DropJournal.h"
#include "companion/text/TimeText.h"

namespace orvane {

// How often each site was blocked, in which browsers, and when.
class DropSums {
 public:
  struct Sum {
    std::string name;  // a host or a browser
    uint64_t count = 0;
    Moment last;
  };
  // A bar of a plot: a time span and the number of connections in it.
  struct Bar {
    Moment start;
    uint64_t count = 0;
  };

  void add(const DropEntry& entry);

  uint64_t count() const { return count_; }
  uint64_t leftOut() const { return leftOut_; }
  // The sums, the largest first; equal ones by name.
  std::vector<Sum> hosts() const { return sorted(hosts_); }
  std::vector<Sum> browsers() const { return sorted(browsers_); }

  // The number of connections in each hour of the local time zone, from the first connection until `until`, in order.
  // If that is a span of more than two days, the number in each day instead.
  std::vector<Bar> bars(Moment until) const;
  bool barsAreDays(Moment until) const;

 private:
  using Sums = std::map<std::string, Sum, std::less<>>;
  static void count(Sums& sums, const std::string& name, const DropEntry& entry);
  static std::vector<Sum> sorted(const Sums& sums);

  uint64_t count_ = 0, leftOut_ = 0;
  Sums hosts_, browsers_;
  std::map<Moment, uint64_t> hours_;  // by the start of the hour
};

}  // namespace orvane
