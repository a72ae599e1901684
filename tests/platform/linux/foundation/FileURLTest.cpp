#include <gtest/gtest.h>

#include <optional>

#include "platform/linux/base/FileURL.h"

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

}  // namespace
}  // namespace orvane
