#include "companion/subscriptions/Transfer.h"

#include <curl/curl.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <string_view>

#include "companion/text/Output.h"

namespace orvane {
namespace {

constexpr long kMostRedirects = 5;
constexpr std::string_view kRedirectsToHttp =
    "the server redirects from https to http, which anybody on the network path can change: ask its owner for an "
    "address with https";

constexpr std::string_view kDamaged = "the server sends damaged compressed data: it is asked again later";

// The value of a header of the last answer, if it can be sent back: printable ASCII that is not too long.
std::string header_of(CURL* handle, const char* name) {
  constexpr size_t kLongest = 1000;
  curl_header* header = nullptr;
  if (curl_easy_header(handle, name, 0, CURLH_HEADER, -1, &header) != CURLHE_OK) return "";
  const std::string value = header->value;
  const bool isUsable =
      value.size() <= kLongest && std::all_of(value.begin(), value.end(), [](char c) { return c >= ' ' && c <= '~'; });
  return isUsable ? value : "";
}

std::string status_error(long status) {
  const std::string number = std::to_string(status);
  if (status == 404 || status == 410) return "the server has no such file (" + number + "): check the URL";
  if (status == 401 || status == 403) return "the server refuses the file (" + number + "): check the URL";
  if (status == 429) return "the server asks for fewer requests (429): the next fetch comes later";
  if (status >= 500) return "the server has an error (" + number + "): it is asked again later";
  return "the server answers " + number + ": check the URL";
}

// Unpacks gzip (RFC 1952). libcurl could unpack it, too, but would not notice that the data are cut off.
class Unpacker {
 public:
  Unpacker() { isUsable_ = inflateInit2(&stream_, kGzip) == Z_OK; }
  Unpacker(const Unpacker&) = delete;
  Unpacker& operator=(const Unpacker&) = delete;
  ~Unpacker() { inflateEnd(&stream_); }

  // Unpacks a piece of the data, and calls `use` for each piece of the result. Returns false if `use` has returned
  // false, which ends the work, or if the data are damaged.
  template <class Use>
  bool add(std::string_view packed, Use use) {
    std::array<char, size_t{1} << 16> buffer;
    stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
    stream_.avail_in = static_cast<uInt>(packed.size());
    while (isUsable_) {
      if (isAtEnd_ && stream_.avail_in == 0) return true;
      if (isAtEnd_) inflateReset(&stream_);  // gzip allows several parts, one after the other
      stream_.next_out = reinterpret_cast<Bytef*>(buffer.data());
      stream_.avail_out = static_cast<uInt>(buffer.size());
      const int outcome = inflate(&stream_, Z_NO_FLUSH);
      if (outcome == Z_BUF_ERROR) return true;  // needs more data
      isAtEnd_ = outcome == Z_STREAM_END;
      isUsable_ = isAtEnd_ || outcome == Z_OK;
      if (isUsable_ && !use(std::string_view(buffer.data(), buffer.size() - stream_.avail_out))) return false;
    }
    return false;
  }
  bool isAtEnd() const { return isAtEnd_; }  // false if the data are cut off

 private:
  static constexpr int kGzip = 15 + 16;  // the largest window, and the header and check sum of gzip
  z_stream stream_{};
  bool isUsable_ = false, isAtEnd_ = false;
};

// At the link-local addresses of IPv4, the servers of clouds serve data about the machine, such as credentials. Neither
// the URL of a subscription nor a redirect may lead there.
bool is_link_local(const sockaddr& address) {
  constexpr uint32_t kLinkLocal = 0xa9fe;  // 169.254.0.0/16
  uint32_t host = 0;
  if (address.sa_family == AF_INET) {
    host = reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr;
  } else if (address.sa_family == AF_INET6) {
    const in6_addr& ipv6 = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
    if (IN6_IS_ADDR_V4MAPPED(&ipv6)) std::memcpy(&host, &ipv6.s6_addr[12], sizeof host);
  }
  return ntohl(host) >> 16 == kLinkLocal;
}

std::string size_text(uint64_t bytes) {
  constexpr uint64_t kMebibyte = 1 << 20;
  return bytes < kMebibyte ? counted(bytes, "byte", "bytes") : std::to_string(bytes / kMebibyte) + " MiB";
}

}  // namespace

struct Transfer::State {
  CURLM* handles = nullptr;
  CURL* handle = nullptr;
  curl_slist* headers = nullptr;
  TransferOptions options;
  std::string body;
  uint64_t received = 0;             // bytes, before they are unpacked
  std::unique_ptr<Unpacker> packed;  // null if the body is not packed
  bool isTooLarge = false, isDamaged = false, redirectsToHttp = false;
  std::array<char, CURL_ERROR_SIZE> fault{};

  template <class Value>
  void set(CURLoption option, Value value) {
    curl_easy_setopt(handle, option, value);
  }

  void addHeader(const char* name, const std::string& value) {
    if (value.empty()) return;
    curl_slist* longer = curl_slist_append(headers, (std::string(name) + ": " + value).c_str());
    if (longer != nullptr) headers = longer;
  }

  void startBody() {
    curl_off_t announced = 0;
    curl_easy_getinfo(handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
    isTooLarge = announced > static_cast<curl_off_t>(options.largest);
    const std::string encoding = header_of(handle, "Content-Encoding");
    if (strcasecmp(encoding.c_str(), "gzip") == 0 || strcasecmp(encoding.c_str(), "x-gzip") == 0)
      packed = std::make_unique<Unpacker>();
    isDamaged = !packed && !encoding.empty() && strcasecmp(encoding.c_str(), "identity") != 0;
  }

  static size_t onBody(char* bytes, size_t size, size_t count, void* self) {
    State& state = *static_cast<State*>(self);
    const std::string_view piece(bytes, size * count);
    if (state.received == 0) state.startBody();
    state.received += piece.size();
    state.isTooLarge = state.isTooLarge || state.received > state.options.largest;
    const auto append = [&](std::string_view part) {
      state.isTooLarge = state.isTooLarge || state.body.size() + part.size() > state.options.largest;
      if (!state.isTooLarge) state.body.append(part);
      return !state.isTooLarge;
    };
    const bool isGood =
        !state.isTooLarge && !state.isDamaged && (state.packed ? state.packed->add(piece, append) : append(piece));
    state.isDamaged = !isGood && !state.isTooLarge;
    return isGood ? piece.size() : 0;  // after 0, libcurl ends the transfer
  }

  // Ends the transfer at a redirect from https to http. CURLOPT_REDIR_PROTOCOLS_STR is not enough: if the
  // subscription's URL is http, this option must allow http, also for a redirect that comes after one to https.
  static size_t onHeader(char* bytes, size_t size, size_t count, void* self) {
    constexpr std::string_view kLocation = "location:", kPlain = "http:";
    State& state = *static_cast<State*>(self);
    const std::string_view line(bytes, size * count);
    const char* scheme = nullptr;
    if (line.size() < kLocation.size() || strncasecmp(line.data(), kLocation.data(), kLocation.size()) != 0)
      return line.size();
    const size_t at = line.find_first_not_of(" \t", kLocation.size());
    if (at == std::string_view::npos || line.size() - at < kPlain.size()) return line.size();
    curl_easy_getinfo(state.handle, CURLINFO_SCHEME, &scheme);
    state.redirectsToHttp = scheme != nullptr && strcasecmp(scheme, "https") == 0 &&
                            strncasecmp(line.data() + at, kPlain.data(), kPlain.size()) == 0;
    return state.redirectsToHttp ? 0 : line.size();
  }

  static curl_socket_t openSocket(void*, curlsocktype, curl_sockaddr* address) {
    if (is_link_local(address->addr)) return CURL_SOCKET_BAD;
    return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  }

  std::string errorText(int code) const {
    const std::string_view details = fault.data();
    if (redirectsToHttp) return std::string(kRedirectsToHttp);
    if (isTooLarge) return "the file has more than " + size_text(options.largest) + ": subscribe to a smaller one";
    if (isDamaged) return std::string(kDamaged);
    switch (code) {
      case CURLE_COULDNT_RESOLVE_HOST:
      case CURLE_COULDNT_RESOLVE_PROXY:
        return "the server's name cannot be resolved: check the URL and the network";
      case CURLE_COULDNT_CONNECT:
        return "no server answers: check the URL and the network";
      case CURLE_PEER_FAILED_VERIFICATION:
      case CURLE_SSL_ISSUER_ERROR:
        return "the server's certificate is not valid for this URL, so the server may be somebody else's: check the "
               "URL";
      case CURLE_SSL_CONNECT_ERROR:
        return "no encrypted connection with the server is possible: check the URL, and whether it is a server for "
               "https";
      case CURLE_SSL_CACERT_BADFILE:
        return "the file with the certificate authorities cannot be read: install the package ca-certificates";
      case CURLE_OPERATION_TIMEDOUT:
        return details.find("too slow") != std::string_view::npos
                   ? "the server sends too slowly (less than " + std::to_string(options.kSlowest) +
                         " bytes a second for " + std::to_string(options.longestStall.count()) +
                         " s): it is asked again later"
                   : "the server does not answer in time: it is asked again later";
      case CURLE_PARTIAL_FILE:
      case CURLE_RECV_ERROR:
      case CURLE_GOT_NOTHING:
      case CURLE_HTTP2:
      case CURLE_HTTP2_STREAM:
        return "the answer was cut off after " + counted(received, "byte", "bytes") +
               ": the server is asked again later";
      case CURLE_UNSUPPORTED_PROTOCOL:
        return "the server redirects to an address that is not https: ask its owner for one with https";
      case CURLE_TOO_MANY_REDIRECTS:
        return "the server redirects more than " + std::to_string(kMostRedirects) + " times: check the URL";
      default:
        return std::string("the fetch failed: ") + curl_easy_strerror(static_cast<CURLcode>(code)) +
               ": check the URL and the network";
    }
  }
};

Transfer::Transfer(void* handles, const Request& request, const TransferOptions& options)
    : state_(std::make_unique<State>()) {
  state_->handles = handles;
  state_->handle = curl_easy_init();
  state_->options = options;
  if (state_->handle == nullptr) throw std::bad_alloc();
  const bool isPlain = request.url.starts_with("http:");
  const char* const protocols = request.isInsecure && isPlain ? "http,https" : "https";
  state_->set(CURLOPT_URL, request.url.c_str());
  state_->set(CURLOPT_PROTOCOLS_STR, protocols);
  state_->set(CURLOPT_REDIR_PROTOCOLS_STR, protocols);
  state_->set(CURLOPT_FOLLOWLOCATION, 1L);
  state_->set(CURLOPT_MAXREDIRS, kMostRedirects);
  state_->set(CURLOPT_HTTP_CONTENT_DECODING, 0L);  // see Unpacker
  state_->set(CURLOPT_USERAGENT, "orvane-fetcher");
  state_->set(CURLOPT_NOSIGNAL, 1L);
  state_->set(CURLOPT_DNS_CACHE_TIMEOUT, 0L);  // the server may have moved since the last fetch
  state_->set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  state_->set(CURLOPT_FAILONERROR, 1L);   // the body of an error's answer is not wanted
  state_->set(CURLOPT_FORBID_REUSE, 1L);  // the next fetch is hours away
  state_->set(CURLOPT_QUICK_EXIT, 1L);    // a name server that does not answer must not delay the end of a transfer
  state_->set(CURLOPT_TIMEOUT, static_cast<long>(options.longest.count()));
  state_->set(CURLOPT_CONNECTTIMEOUT, static_cast<long>(options.longestStall.count()));
  state_->set(CURLOPT_LOW_SPEED_LIMIT, TransferOptions::kSlowest);
  state_->set(CURLOPT_LOW_SPEED_TIME, static_cast<long>(options.longestStall.count()));
  if (!options.authorities.empty()) state_->set(CURLOPT_CAINFO, options.authorities.c_str());
  state_->addHeader("Accept-Encoding", "gzip");
  state_->addHeader("If-None-Match", request.etag);
  state_->addHeader("If-Modified-Since", request.lastModified);
  state_->set(CURLOPT_HTTPHEADER, state_->headers);
  state_->set(CURLOPT_ERRORBUFFER, state_->fault.data());
  state_->set(CURLOPT_WRITEFUNCTION, &State::onBody);
  state_->set(CURLOPT_WRITEDATA, static_cast<void*>(state_.get()));
  state_->set(CURLOPT_HEADERFUNCTION, &State::onHeader);
  state_->set(CURLOPT_HEADERDATA, static_cast<void*>(state_.get()));
  state_->set(CURLOPT_OPENSOCKETFUNCTION, &State::openSocket);
  curl_multi_add_handle(handles, state_->handle);
}

Transfer::~Transfer() {
  curl_multi_remove_handle(state_->handles, state_->handle);
  curl_easy_cleanup(state_->handle);
  curl_slist_free_all(state_->headers);
}

void* Transfer::handle() const { return state_->handle; }

Transfer::Result Transfer::result(int code) {
  Result result;
  long status = 0;
  curl_off_t retryAfter = 0;
  curl_easy_getinfo(state_->handle, CURLINFO_RESPONSE_CODE, &status);
  curl_easy_getinfo(state_->handle, CURLINFO_RETRY_AFTER, &retryAfter);
  result.retryAfter = std::chrono::seconds(retryAfter);
  if (code == CURLE_OK && state_->packed && !state_->packed->isAtEnd()) state_->isDamaged = true;
  if ((code != CURLE_OK && code != CURLE_HTTP_RETURNED_ERROR) || state_->isDamaged) {
    result.error = state_->errorText(code);
    return result;
  }
  if (status == 200) {
    result.outcome = Outcome::Fetched;
    result.body = std::move(state_->body);
    result.etag = header_of(state_->handle, "ETag");
    result.lastModified = header_of(state_->handle, "Last-Modified");
  } else if (status == 304) {
    result.outcome = Outcome::NotModified;
  } else {
    if (status == 404 || status == 410) result.outcome = Outcome::NotFound;
    result.error = status_error(status);
  }
  return result;
}

uint64_t Transfer::received() const { return state_->received; }

uint64_t Transfer::announced() const {
  curl_off_t size = 0;
  curl_easy_getinfo(state_->handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &size);
  return size > 0 ? static_cast<uint64_t>(size) : 0;
}

std::string signature_url(const std::string& url) {
  const std::unique_ptr<CURLU, void (*)(CURLU*)> parts(curl_url(), curl_url_cleanup);
  char *path = nullptr, *whole = nullptr;
  std::string result;
  if (parts && curl_url_set(parts.get(), CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
      curl_url_get(parts.get(), CURLUPART_PATH, &path, 0) == CURLUE_OK &&
      curl_url_set(parts.get(), CURLUPART_PATH, (std::string(path) + ".minisig").c_str(), 0) == CURLUE_OK &&
      curl_url_get(parts.get(), CURLUPART_URL, &whole, 0) == CURLUE_OK)
    result = whole;
  curl_free(path);
  curl_free(whole);
  return result;
}

}  // namespace orvane
