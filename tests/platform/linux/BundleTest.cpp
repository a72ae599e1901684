#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Bundle.h"
#include "platform/ReadStream.h"
#include "platform/linux/FileURL.h"
#include "platform/linux/TemporaryFolder.h"

namespace orvane {
namespace {

TEST(FileURL, LeadsToAnotherFile) {
  const std::pair<const char*, std::optional<std::string>> rows[] = {
      {"file:///a%20b/c", "/a b/c"}, {"FILE://localhost/a", "/a"}, {"file:/a", "/a"}, {"file:///a%2Fb", "/a/b"},
      {"file://elsewhere/a", {}},    {"http://localhost/a", {}},   {"/a", {}},        {"file:a", {}},
      {"file:///a%00b", {}},         {"file:///a%2", {}},          {"", {}}};
  for (const auto& [url, path] : rows) EXPECT_EQ(path_of_file_url(url), path) << url;
  for (const char* path : {"/with space/%41?x#y", "/\xc3\xa9;:@", "//double", "/"}) {
    EXPECT_EQ(path_of_file_url(file_url_of_path(path)), path);
  }
}

TEST(ReadStream, MixesUpTheStepThatFailed) {
  TemporaryFolder folder;
  std::filesystem::path pipe = folder.path() / "pipe without a writer";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_FALSE(read_stream_create_with_file("http://localhost/a"));
  // Whether the file opens, and what reads of four bytes then give.
  const struct {
    std::filesystem::path path;
    bool opens;
    std::vector<int64_t> reads;
  } rows[] = {{folder.path() / "missing", false, {-1}},
              {folder.path(), true, {-1}},
              {pipe, true, {0}},
              {folder.write("six", "sixsix"), true, {4, 2, 0, 0}}};
  std::array<uint8_t, 4> buffer{};
  for (const auto& row : rows) {
    auto stream = read_stream_create_with_file(file_url_of_path(row.path));
    ASSERT_TRUE(stream) << row.path;
    EXPECT_EQ(read_stream_open(stream.get()), row.opens) << row.path;
    EXPECT_EQ(read_stream_get_buffer(stream.get(), 0, nullptr), nullptr);
    for (int64_t count : row.reads) EXPECT_EQ(read_stream_read(stream.get(), buffer.data(), 4), count) << row.path;
    read_stream_close(stream.get());
    EXPECT_LT(read_stream_read(stream.get(), buffer.data(), 4), 0) << "closed";
  }
}

TEST(Bundle, FindsWhatIsNotThereOrMissesWhatIs) {
  TemporaryFolder folder;
  folder.write("A.bundle/Contents/Info.plist", "<plist><dict><key>Name</key><string>Value</string></dict></plist>");
  folder.write("A.bundle/Contents/Resources/Browsers.plist", "");
  folder.write("A.bundle/Contents/Resources/Folder.plist/Inner.plist", "");
  folder.write("Broken.bundle/Contents/Info.plist", "<plist><dict><key>Name</key>");
  folder.write("Endless.bundle/Contents/Info.plist", std::string(2 << 20, ' '));
  auto open = [&](const char* name) { return bundle_create(file_url_of_path(folder.path() / name)); };

  auto bundle = open("A.bundle");
  ASSERT_TRUE(bundle);
  std::array<std::thread, 4> threads;  // the first one to ask reads the dictionary
  for (auto& thread : threads) {
    thread = std::thread([&] { EXPECT_EQ(bundle_get_information(bundle.get(), "Name"), Value::string("Value")); });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(bundle_copy_resource_url(bundle.get(), "Browsers", "plist"),
            file_url_of_path(folder.path() / "A.bundle/Contents/Resources/Browsers.plist"));
  for (const char* name : {"Missing", "Folder", "Folder/Inner", "../Info"}) {
    EXPECT_EQ(bundle_copy_resource_url(bundle.get(), name, "plist"), std::nullopt) << name;
  }
  EXPECT_TRUE(bundle_get_information(open("Broken.bundle").get(), "Name").isNil());
  EXPECT_TRUE(bundle_get_information(open("Endless.bundle").get(), "Name").isNil());
  EXPECT_FALSE(open("Missing.bundle"));
  EXPECT_FALSE(open("A.bundle/Contents/Resources")) << "a folder that is no bundle";

  EXPECT_EQ(bundle_get_main(), nullptr) << "this program stands in none";
  EXPECT_TRUE(bundle_get_information(nullptr, "Name").isNil());
  EXPECT_EQ(bundle_copy_resource_url(nullptr, "Browsers", "plist"), std::nullopt);
}

}  // namespace
}  // namespace orvane
