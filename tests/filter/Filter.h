#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "database/db.h"
#include "platform/StandIn.h"

namespace orvane {

inline constexpr int32_t kBrowser = 10, kHelper = 11, kOther = 12, kSafari = 13, kSafariHelper = 14;

// Runs with a browser, a helper that works for it, another program, and "held.example" in the database.
class FilterTest : public testing::Test {
 protected:
  FilterTest() {
    stand_in::reset();
    stand_in::files().resourceMissing = true;
    db_init();
    db_browser_add(Value::string("browser"));
    db_hostname_add(Value::string("held.example"));
    stand_in::security().identifiers = {{kBrowser, "org.browser"},
                                        {kHelper, "org.helper"},
                                        {kOther, "org.other"},
                                        {kSafari, "com.apple.Safari"},
                                        {kSafariHelper, "com.apple.helper"}};
    stand_in::security().responsible = {{kHelper, kBrowser}, {kSafariHelper, kSafari}};
    stand_in::take_log();
  }
  ~FilterTest() override { db_term(); }

  static Ref<stand_in::SocketFlow> socketFlowTo(const char* port, std::optional<std::string> hostname,
                                                int32_t pid = kBrowser) {
    auto flow = Ref<stand_in::SocketFlow>::adopt(new stand_in::SocketFlow);
    flow->token = stand_in::token_of(pid);
    flow->hostname = std::move(hostname);
    flow->endpoints = {NWHostEndpoint::endpointWithHostname("192.0.2.1", port)};
    return flow;
  }

  static Ref<stand_in::Flow> plainFlow(std::optional<std::string> url, int32_t pid = kBrowser) {
    auto flow = Ref<stand_in::Flow>::adopt(new stand_in::Flow);
    flow->token = stand_in::token_of(pid);
    flow->url = std::move(url);
    return flow;
  }

  // The messages of one category since the last call, without its name, joined by " | ".
  static std::string messages(const std::string& category) {
    std::string found;
    for (const std::string& line : stand_in::take_log()) {
      if (!line.starts_with(category + ": ")) continue;
      found += (found.empty() ? "" : " | ") + line.substr(category.size() + 2);
    }
    return found;
  }
};

}  // namespace orvane
