#include "platform/linux/base/FileURL.h"

#include <boost/url/encode.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/rfc/pchars.hpp>

namespace orvane {

std::optional<std::string> path_of_file_url(const std::string& url) {
  auto parsed = boost::urls::parse_uri(url);
  if (!parsed || parsed->scheme_id() != boost::urls::scheme::file) return std::nullopt;
  std::string host = parsed->host();
  if (!host.empty() && host != "localhost") return std::nullopt;
  std::string path = parsed->path();
  if (!path.starts_with('/') || path.find('\0') != std::string::npos) return std::nullopt;
  return path;
}

std::string file_url_of_path(const std::string& path) {
  return "file://" + boost::urls::encode(path, boost::urls::pchars + '/');
}

}  // namespace orvane
