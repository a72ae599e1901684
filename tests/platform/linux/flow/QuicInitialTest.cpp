#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "platform/linux/flow/QuicInitial.h"
#include "support/QuicClient.h"

namespace orvane {
namespace {

using enum QuicInitialReader::State;
using quic::crypto;
using quic::hello;
using quic::number;
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
  std::string steps;  // for each datagram: "known", "unknown", or while the name is open "pass" (readable) or "hold"
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
      {"rfc9001", "known ", "example.com"},  // RFC 9001, appendix A.2
      {"rfc9369", "known ", "example.com"},  // RFC 9369, appendix A.2
      {"chromium_1", "pass known ", "held.example"},
      {"firefox_1", "pass known ", "held.example"},
  };
  for (const auto& c : kCases) {
    const Outcome outcome = read_all(recorded(c.file));
    EXPECT_EQ(outcome.steps, c.steps) << c.file;
    EXPECT_EQ(outcome.name, c.name) << c.file;
  }
}

using Datagrams = std::vector<std::string>;

TEST(QuicInitial, AssemblesTheHello) {
  const std::string text = hello("Held.Example.", 400), ping = "\x01", end = text.substr(300);
  const std::string begin = crypto(0, text.substr(0, 300));
  const struct {
    const char* what;
    std::function<Datagrams(Client&)> send;
    std::string steps;
  } kCases[] = {
      {"one packet", [&](Client& c) { return Datagrams{c.initial(crypto(0, text))}; }, "known "},
      {"version 2",
       [&](Client& c) {
         c.isSecondVersion = true;
         return Datagrams{c.initial(begin), c.initial(crypto(300, end))};
       },
       "pass known "},
      {"shuffled pieces in two datagrams",
       [&](Client& c) {
         const std::string first = crypto(100, text.substr(100, 50)) + ping + crypto(400, text.substr(400));
         const std::string second = crypto(150, text.substr(150, 250)) + std::string(9, '\0');
         return Datagrams{c.initial(first), c.initial(second + crypto(0, text.substr(0, 100)))};
       },
       "pass known "},
      {"two packets and zeros in a datagram",
       [&](Client& c) { return Datagrams{c.initial(begin) + std::string(50, '\0') + c.initial(crypto(300, end))}; },
       "known "},
      {"a lost datagram, sent again with other borders",
       [&](Client& c) {
         return Datagrams{c.initial(crypto(300, end)), c.initial(crypto(300, end)),
                          c.initial(crypto(0, text.substr(0, 350)))};
       },
       "pass pass known "},
      {"a large first number, then numbers cut to a byte",
       [&](Client& c) {
         c.number = 0x4ff;
         c.numberLength = 2;
         const std::string first = c.initial(begin);
         c.numberLength = 1;
         return Datagrams{first, c.initial(crypto(300, end))};
       },
       "pass known "},
      {"acknowledgments ahead",
       [&](Client& c) {
         const std::string ack =
             '\x02' + variable(7) + variable(1) + variable(1) + variable(2) + variable(0) + variable(1);
         const std::string counts = '\x03' + variable(7) + variable(1) + variable(0) + variable(2) + number(0, 3);
         return Datagrams{c.initial(ack + counts + crypto(0, text))};
       },
       "known "},
      {"a new connection ID after a Retry",
       [&](Client& c) {
         const std::string lost = c.initial(begin);
         c.keyID = "of the server's Retry";
         c.keyID.resize(20);
         return Datagrams{lost, c.initial(begin, "a token"), c.initial(crypto(300, end), "a token")};
       },
       "pass pass known "},
      {"another connection of the same socket",
       [&](Client& c) {
         const std::string other = c.initial(crypto(0, hello("other.example", 50).substr(0, 90)));
         c.keyID = "seconddst";
         return Datagrams{other, c.initial(begin), c.initial(crypto(300, end))};
       },
       "pass pass known "},
      {"a connection ID that the server chose later",
       [&](Client& c) {
         return Datagrams{c.initial(begin), c.packet(0, crypto(300, end), "chosen")};
       },
       "pass known "},
      {"0-RTT after a part of the hello, alone and in its datagram",
       [&](Client& c) {
         const std::string request = c.packet(1, std::string(40, 'r'), c.keyID);
         return Datagrams{request, c.initial(begin), request, c.initial(begin) + request, c.initial(crypto(300, end))};
       },
       "hold pass hold hold known "},
      {"packets of a finished handshake after a part of the hello",
       [&](Client& c) {
         const std::string handshake = c.packet(2, std::string(40, 'h'), "chosen");
         return Datagrams{c.initial(begin), handshake, '\x41' + std::string(40, 's'), c.initial("\x08"),
                          c.initial(crypto(300, end))};
       },
       "pass hold hold hold known "},
      {"an unknown version, then a known one",
       [&](Client& c) {
         std::string unknown = c.initial(crypto(0, text));
         unknown[2] = '\x0a';
         return Datagrams{unknown, c.initial(crypto(0, text))};
       },
       "hold known "},
  };
  for (const auto& c : kCases) {
    Client client;
    const Outcome outcome = read_all(c.send(client));
    EXPECT_EQ(outcome.steps, c.steps) << c.what;
    EXPECT_EQ(outcome.name, "held.example") << c.what;
  }
}

TEST(QuicInitial, GivesUpWhereNoNameCanCome) {
  const std::string text = hello("held.example");
  const struct {
    const char* what;
    std::function<Datagrams(Client&)> send;
    std::string steps;
  } kCases[] = {
      {"an empty datagram", [](Client&) { return Datagrams{""}; }, "unknown "},
      {"another protocol", [](Client&) { return Datagrams{number(0x0400000001020304, 8)}; }, "unknown "},
      {"a protocol that sets the highest bit",
       [](Client&) { return Datagrams{"\x80\x60\x12\x34" + std::string(20, 'm')}; }, "unknown "},
      {"a short header, of a connection that moved", [](Client&) { return Datagrams{'\x41' + std::string(40, 's')}; },
       "unknown "},
      {"a handshake whose begin was not seen",
       [](Client& c) { return Datagrams{c.packet(2, std::string(40, 'h'), "chosen")}; }, "unknown "},
      {"an Initial with unknown keys", [&](Client& c) { return Datagrams{c.packet(0, crypto(0, text), "chosen")}; },
       "unknown "},
      {"a length beyond the datagram",
       [&](Client& c) {
         std::string cut = c.initial(crypto(0, text));
         cut.pop_back();
         return Datagrams{cut};
       },
       "unknown "},
      {"a connection ID of 21 bytes",
       [&](Client& c) {
         c.keyID = std::string(21, 'd');
         return Datagrams{c.initial(crypto(0, text))};
       },
       "unknown "},
      {"a packet too short for its protection",
       [](Client&) { return Datagrams{'\xc0' + number(1, 4) + number(0, 2) + number(0, 1) + number(3, 1) + "abc"}; },
       "unknown "},
      {"a hello without a name", [](Client& c) { return Datagrams{c.initial(crypto(0, hello("")))}; }, "unknown "},
      {"bytes beyond the limit", [](Client& c) { return Datagrams{c.initial(crypto(QuicInitialReader::kLimit, "x"))}; },
       "unknown "},
      {"bytes up to the limit",
       [](Client& c) { return Datagrams{c.initial(crypto(QuicInitialReader::kLimit - 1, "x"))}; }, "pass "},
      {"a cut frame", [&](Client& c) { return Datagrams{c.packet(0, crypto(9, text).substr(0, 40), c.keyID)}; },
       "unknown "},
  };
  for (const auto& c : kCases) {
    Client client;
    EXPECT_EQ(read_all(c.send(client)).steps, c.steps) << c.what;
  }
}

}  // namespace
}  // namespace orvane
