#include <gtest/gtest.h>

#include <array>
#include <optional>

#include "platform/Bundle.h"
#include "platform/ReadStream.h"
#include "platform/linux/base/FileURL.h"
#include "support/TemporaryFolder.h"

namespace orvane {
namespace {

TEST(FileURL, ConvertsPathsBothWays) {
  EXPECT_EQ(path_of_file_url("file:///a%20b/c"), "/a b/c");
  EXPECT_EQ(path_of_file_url("FILE://localhost/a"), "/a");
  for (const char* url : {"file://elsewhere/a", "http://localhost/a", "file:a", "/a", "file:///a%00b", "file:///a%2"}) {
    EXPECT_EQ(path_of_file_url(url), std::nullopt) << url;
  }
  for (const char* path : {"/with space/%41?x#y", "/\xc3\xa9;:@", "//double"}) {
    EXPECT_EQ(path_of_file_url(file_url_of_path(path)), path);
  }
}

TEST(ReadStream, ReadsToTheEndOfTheFile) {
  TemporaryFolder folder;
  EXPECT_FALSE(read_stream_open(read_stream_create_with_file(file_url_of_path(folder.path() / "missing")).get()));
  auto stream = read_stream_create_with_file(file_url_of_path(folder.write("six", "sixsix")));
  ASSERT_TRUE(read_stream_open(stream.get()));
  std::array<uint8_t, 4> buffer{};
  for (int64_t count : {4, 2, 0}) EXPECT_EQ(read_stream_read(stream.get(), buffer.data(), 4), count);
}

TEST(Bundle, FindsInformationAndResourcesInItsFolders) {
  TemporaryFolder folder;
  folder.write("A.bundle/Contents/Info.plist", "<plist><dict><key>Name</key><string>Value</string></dict></plist>");
  auto resource = folder.write("A.bundle/Contents/Resources/Browsers.plist", "");
  auto open = [&](const char* name) { return bundle_create(file_url_of_path(folder.path() / name)); };

  auto bundle = open("A.bundle");
  EXPECT_EQ(bundle_get_information(bundle.get(), "Name"), Value::string("Value"));
  EXPECT_EQ(bundle_copy_resource_url(bundle.get(), "Browsers", "plist"), file_url_of_path(resource));
  EXPECT_EQ(bundle_copy_resource_url(bundle.get(), "Missing", "plist"), std::nullopt);
  EXPECT_EQ(bundle_copy_resource_url(bundle.get(), "../Info", "plist"), std::nullopt);
  EXPECT_FALSE(open("A.bundle/Contents/Resources")) << "a folder that is not a bundle";
  EXPECT_EQ(bundle_copy_resource_url(bundle_get_main(), "Browsers", "plist"), std::nullopt)
      << "this program is not in a bundle";
}

}  // namespace
}  // namespace orvane
