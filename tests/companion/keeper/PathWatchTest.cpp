#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "companion/keeper/PathWatch.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

// Each row changes something about folder/file, where `folder` is there from the start and `missing` is not.
TEST(PathWatch, ReportsChangesOfAFile) {
  const fs::path root = fs::path(testing::TempDir()) / ("watch." + std::to_string(getpid()));
  const fs::path folder = root / "folder", missing = root / "missing";
  auto write = [](const fs::path& path) { std::ofstream(path) << "text"; };
  const struct {
    const char* description;
    fs::path watched;
    std::function<void()> change;
    bool isReported;
  } kCases[] = {
      {"written in place", folder / "file", [&] { write(folder / "file"); }, true},
      {"renamed into place", folder / "file", [&] { fs::rename(folder / "new", folder / "file"); }, true},
      {"removed", folder / "file", [&] { fs::remove(folder / "file"); }, true},
      {"another file", folder / "file", [&] { write(folder / "other"); }, false},
      {"a folder above appears", missing / "deep" / "file", [&] { fs::create_directory(missing); }, true},
      {"another folder appears", missing / "file", [&] { fs::create_directory(root / "other"); }, false},
      {"the folder is renamed", folder / "file", [&] { fs::rename(folder, missing); }, true},
      {"the folder is removed", folder / "file", [&] { fs::remove_all(folder); }, true},
  };
  for (const auto& c : kCases) {
    fs::remove_all(root);
    fs::create_directories(folder);
    write(folder / "file");
    write(folder / "new");
    PathWatch watch({c.watched});
    EXPECT_FALSE(watch.readEvents()) << c.description;
    c.change();
    EXPECT_EQ(watch.readEvents(), c.isReported) << c.description;
    if (!c.isReported) continue;
    // The watch follows the path to the folder that is there now.
    watch.readEvents();
    fs::create_directories(c.watched.parent_path());
    watch.readEvents();
    write(c.watched);
    EXPECT_TRUE(watch.readEvents()) << "a write after: " << c.description;
  }
  fs::remove_all(root);
}

}  // namespace
}  // namespace orvane
