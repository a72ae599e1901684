#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "platform/linux/flow/QuicInitial.h"
#include "support/QuicClient.h"

namespace orvane {
namespace {

using enum NameState;
using quic::crypto;
using quic::hello;
using quic::variable;
using Client = quic::QuicClient;

std::span<const uint8_t> bytes_of(const std::string& text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// The datagrams of a file in the fuzz target's corpus. In the file, each datagram comes after its length (2 bytes).
std::vector<std::string> recorded(const std::string& file) {
  std::ifstream input(std::string(ORVANE_QUIC_RECORDS) + file, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(input), {}};
  std::vector<std::string> datagrams;
  while (text.size() > 2) {
    const size_t length = static_cast<uint8_t>(text[0]) << 8U | static_cast<uint8_t>(text[1]);
    datagrams.push_back(text.substr(2, length));
    text.erase(0, 2 + length);
  }
  return datagrams;
}

struct Outcome {
  // One word for each datagram. "known": the name is complete. "unknown": no name can come. "pass" and "hold": the name
  // is incomplete, and the datagram is readable ("pass") or not ("hold").
  std::string steps;
  std::string name;
};

Outcome read_all(const std::vector<std::string>& datagrams) {
  QuicInitialReader reader;
  Outcome outcome;
  for (const std::string& datagram : datagrams) {
    const auto state = reader.read(bytes_of(datagram));
    const char* open = reader.isReadable() ? "pass " : "hold ";
    outcome.steps += state == Open ? open : state == Known ? "known " : "unknown ";
  }
  outcome.name = reader.hello().name();
  return outcome;
}

TEST(QuicInitial, ReadsRecordedHellos) {
  const struct {
    const char* file;
    std::string steps, name;
  } kCases[] = {
      {"rfc9001", "known ", "example.com"},  // RFC 9001, appendix A.2: version 1
      {"rfc9369", "known ", "example.com"},  // RFC 9369, appendix A.2: version 2
      {"chromium_1", "pass known ", "held.example"},
      {"firefox_1", "pass known ", "held.example"},
  };
  for (const auto& c : kCases) {
    const Outcome outcome = read_all(recorded(c.file));
    EXPECT_EQ(outcome.steps, c.steps) << c.file;
    EXPECT_EQ(outcome.name, c.name) << c.file;
  }
}

TEST(QuicInitial, AssemblesTheHello) {
  const std::string text = hello("Held.Example.", 400);
  const std::string begin = crypto(0, text.substr(0, 300)), end = crypto(300, text.substr(300));
  Client client, retried{.keyID = std::string(20, 'k')}, late{.number = 0x4ff, .numberLength = 2};
  const std::string first = client.initial(begin), second = client.initial(end);
  const std::string other = client.initial(crypto(0, hello("other.example", 50).substr(0, 90)));
  const std::string lateFirst = late.initial(begin);
  late.numberLength = 1;
  const std::string ack = '\x02' + variable(7) + variable(1) + variable(1) + variable(2) + variable(0) + variable(1);
  const std::string counts = '\x03' + variable(7) + variable(1) + variable(0) + variable(2) + std::string(3, '\0');
  const std::string request = client.packet(1, std::string(40, 'r'), client.keyID);
  const std::string handshake = client.packet(2, std::string(40, 'h'), "chosen");
  std::string unknownVersion = first;
  unknownVersion[2] = '\x0a';
  const struct {
    const char* what;
    std::vector<std::string> datagrams;
    std::string steps;
  } kCases[] = {
      {"two packets and zeros in a datagram", {first + std::string(50, '\0') + second}, "known "},
      {"a large first number, then numbers cut to a byte", {lateFirst, late.initial(end)}, "pass known "},
      {"acknowledgments ahead", {client.initial(ack + counts + begin), second}, "pass known "},
      {"another connection of the same socket, with the token of a Retry",
       {other, retried.initial(begin, "a token"), retried.initial(end, "a token")},
       "pass pass known "},
      {"a connection ID that the server chose later", {first, client.packet(0, end, "chosen")}, "pass known "},
      {"0-RTT after a part of the hello, alone and in its datagram",
       {request, first, request, first + request, second},
       "hold pass hold hold known "},
      {"packets of a finished handshake after a part of the hello",
       {first, handshake, '\x41' + std::string(40, 's'), client.initial("\x08"), second},
       "pass hold hold hold known "},
      {"an unknown version, then a known one", {unknownVersion, first, second}, "hold pass known "},
  };
  for (const auto& c : kCases) {
    const Outcome outcome = read_all(c.datagrams);
    EXPECT_EQ(outcome.steps, c.steps) << c.what;
    EXPECT_EQ(outcome.name, "held.example") << c.what;
  }
}

TEST(QuicInitial, GivesUpWhereNoNameCanCome) {
  const std::string frame = crypto(0, hello("held.example"));
  constexpr size_t kLimit = QuicInitialReader::kLimit;
  Client client, longID{.keyID = std::string(21, 'd')};
  const std::pair<const char*, std::string> kCases[] = {
      {"an empty datagram", ""},
      {"a protocol that sets the highest bit", "\x80\x60\x12\x34" + std::string(20, 'm')},
      {"a short header, of a connection that moved", '\x41' + std::string(40, 's')},
      {"a handshake whose begin was not seen", client.packet(2, std::string(40, 'h'), "chosen")},
      {"an Initial with unknown keys", client.packet(0, frame, "chosen")},
      {"a length beyond the datagram", client.initial(frame).substr(0, 100)},
      {"a connection ID of 21 bytes", longID.initial(frame)},
      {"a packet too short for its protection", std::string("\xc0\0\0\0\1\0\0\0\3abc", 12)},
      {"a hello without a name", client.initial(crypto(0, hello("")))},
      {"bytes beyond the limit", client.initial(crypto(kLimit, "x"))},
      {"a cut frame", client.packet(0, frame.substr(0, 40), client.keyID)},
  };
  for (const auto& [what, datagram] : kCases) EXPECT_EQ(read_all({datagram}).steps, "unknown ") << what;
  EXPECT_EQ(read_all({client.initial(crypto(kLimit - 1, "x"))}).steps, "pass ") << "bytes up to the limit";
}

}  // namespace
}  // namespace orvane
