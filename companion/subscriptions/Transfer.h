#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace orvane {

struct TransferOptions {
  std::string authorities;                // a file with the certificate authorities; empty: those of the system
  size_t largest = size_t{64} << 20;      // bytes of a body, before and after it is unpacked
  std::chrono::seconds longest{600};      // for the whole transfer
  std::chrono::seconds longestStall{60};  // the transfer ends if it is slower than kSlowest for this long
  static constexpr long kSlowest = 100;   // bytes per second
};

// A request for a file of a web server over HTTP, with libcurl. Uses the proxy of the environment
// (https_proxy, no_proxy and so on).
class Transfer {
 public:
  struct Request {
    std::string url;
    bool isInsecure = false;         // http is allowed
    std::string etag, lastModified;  // of the copy that the caller has; empty if it has none
  };
  enum class Outcome { Fetched, NotModified, NotFound, Failed };
  struct Result {
    Outcome outcome = Outcome::Failed;
    std::string error;  // if the transfer failed: why, and what to do. Contains no text from the server
    std::string body, etag, lastModified;
    std::chrono::seconds retryAfter{0};  // how long the server asks to wait
  };

  // `handles` is a multi handle of libcurl, which outlives this object and carries out the transfer. The transfer is
  // cancelled when this object is destroyed.
  Transfer(void* handles, const Request& request, const TransferOptions& options);
  ~Transfer();
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  // libcurl's easy handle, by which libcurl's messages name the transfer.
  void* handle() const;
  // Call this when libcurl has reported the end of the transfer, with this code.
  Result result(int code);
  uint64_t received() const;   // bytes of the body, before it is unpacked
  uint64_t announced() const;  // the size that the server announced; 0 if it did not

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// The URL of the signature of the file at `url`. Empty if libcurl cannot read the URL.
std::string signature_url(const std::string& url);

}  // namespace orvane
