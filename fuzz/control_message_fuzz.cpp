// Plays a client of the control channel that sends arbitrary bytes. The first byte of the input selects who reads the
// other bytes:
//
//   0   a new session
//   1   a session that has read the bootstrap message
//   2   the same as 1, but this target puts a segment table before the bytes, which makes them one message
//   3   the conversion of values, without a session
#include <capnp/rpc.capnp.h>
#include <capnp/serialize.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/Log.h"
#include "platform/files/Descriptor.h"
#include "platform/linux/control/ControlSession.h"
#include "platform/linux/control/ValueMessage.h"

namespace orvane {

// A log that discards everything.
class LogHandle {};
void retain(const LogHandle*) {}
void release(const LogHandle*) {}
const os_log_t& default_log() {
  static const os_log_t kNone;
  return kNone;
}
bool os_log_type_enabled(const os_log_t&, LogLevel) { return false; }
void log_detail::write(const os_log_t&, LogLevel, std::string_view, std::initializer_list<Argument>) {}

namespace {

// The exported object. It reads every byte of its arguments.
class Exported final : public OrvaneSECommunication {
 public:
  void pingWithReply(const BooleanReply& reply) override { reply(true); }
  void getAppFilterStateWithReply(const BooleanReply& reply) override { reply(false); }
  void start() override {}
  void stop() override {}
  void addApplicationIdentifier(const Value& identifier) override { look(identifier); }
  void removeApplicationIdentifier(const Value& identifier) override { look(identifier); }
  void setApplicationIdentifiers(const Value& identifiers) override { look(identifiers); }
  void addHostname(const Value& hostname) override { look(hostname); }
  void removeHostname(const Value& hostname) override { look(hostname); }
  void setHostnames(const Value& hostnames) override { look(hostnames); }
  void setProperties(const Value& properties, const Value& forHostname) override {
    look(properties);
    look(forHostname);
  }
  void getChangesCount(const CountReply& reply) override { reply(length_); }

 private:
  void look(const Value& value) { length_ += value.description().size(); }
  uint64_t length_ = 0;
};

void run_session(const std::string& bytes) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
  Descriptor ours(ends[0]), theirs(ends[1]);
  if (send(theirs.get(), bytes.data(), bytes.size(), MSG_DONTWAIT) != static_cast<ssize_t>(bytes.size())) std::abort();
  shutdown(theirs.get(), SHUT_WR);
  static Exported& exported = *new Exported;
  SessionActivity activity;
  serve_session(ours.get(), &exported, activity);
}

// A message with the content as its only segment.
std::string framed(std::string content) {
  content.resize((content.size() + 7) / 8 * 8);
  const uint32_t frame[2] = {0, static_cast<uint32_t>(content.size() / 8)};
  return std::string(reinterpret_cast<const char*>(frame), sizeof frame) + content;
}

std::string bootstrap() {
  capnp::MallocMessageBuilder message;
  message.initRoot<capnp::rpc::Message>().initBootstrap().setQuestionId(0);
  auto words = capnp::messageToFlatArray(message);
  return {reinterpret_cast<const char*>(words.begin()), words.asBytes().size()};
}

// Reads the bytes as a value. Checks that this value stays the same when it is written and read again.
void convert(const std::string& bytes) {
  auto words = kj::heapArray<capnp::word>((bytes.size() + 7) / 8);
  if (words.size() == 0) return;
  words.asBytes().back() = 0;
  std::memcpy(words.begin(), bytes.data(), bytes.size());
  kj::ArrayPtr<const capnp::word> segments[] = {words};
  capnp::ReaderOptions options{kMaximumMessageWords, 3 * kMaximumNesting + 16};
  capnp::SegmentArrayMessageReader reader(kj::arrayPtr(segments, 1), options);
  std::optional<Value> value;
  if (kj::runCatchingExceptions([&] { value = read_value(reader.getRoot<control::Value>(), words.size()); }) !=
      nullptr) {
    return;
  }
  if (!value) return;
  capnp::MallocMessageBuilder copy;
  write_value(*value, copy.initRoot<control::Value>());
  std::optional<Value> again = read_value(copy.getRoot<control::Value>().asReader(), copy.sizeInWords());
  if (!again || !(*again == *value)) std::abort();
}

}  // namespace
}  // namespace orvane

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The socket's buffer must hold the whole input, since run_session() sends it before the session reads.
  if (size == 0 || size > 32768) return 0;
  std::string bytes(reinterpret_cast<const char*>(data + 1), size - 1);
  switch (data[0] % 4) {
    case 0:
      orvane::run_session(bytes);
      break;
    case 1:
      orvane::run_session(orvane::bootstrap() + bytes);
      break;
    case 2:
      orvane::run_session(orvane::bootstrap() + orvane::framed(bytes));
      break;
    default:
      orvane::convert(bytes);
      break;
  }
  return 0;
}
