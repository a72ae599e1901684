#include <CLI/CLI.hpp>
#include <cstdlib>
#include <exception>
#include <string>

#include "companion/subscriptions/Fetcher.h"
#include "companion/subscriptions/FetcherState.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/ServiceLog.h"

int main(int argc, char** argv) {
  const char* folder = std::getenv("STATE_DIRECTORY");
  orvane::FetcherOptions options{"/var/lib/orvane-se", folder == nullptr ? orvane::kFetcherPath : folder, {}};
  double mebibytes = 64;
  int stall = 60;
  CLI::App app("Fetches the lists to which orvanectl subscribes, and keeps them up to date.", "orvane-fetcher");
  app.add_option("--lists", options.listFolder, "The folder with the file \"subscriptions\"")->capture_default_str();
  app.add_option("--folder", options.folder, "The folder for the fetched lists")->capture_default_str();
  app.add_option("--authorities", options.transfer.authorities,
                 "A file with the certificate authorities to trust, instead of the system's");
  app.add_option("--largest", mebibytes, "The size of the largest list, in MiB")
      ->check(CLI::Range(0.001, 1024.0))
      ->capture_default_str();
  app.add_option("--stall", stall, "Seconds after which a fetch ends that is slower than 100 bytes a second")
      ->check(CLI::Range(1, 3600))
      ->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  constexpr double kMebibyte = 1 << 20;
  options.transfer.largest = static_cast<size_t>(mebibytes * kMebibyte);
  options.transfer.longestStall = std::chrono::seconds(stall);
  try {
    return orvane::run_fetcher(options);
  } catch (const std::exception& error) {
    orvane::service_log("orvane-fetcher", orvane::LogLevel::Error, error.what());
    return orvane::kFailed;
  }
}
