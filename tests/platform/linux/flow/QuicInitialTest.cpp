#include <gtest/gtest.h>

#include "platform/linux/flow/QuicInitial.h"
#include "support/QuicRecords.h"

namespace orvane {
namespace {

using enum NameState;

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
    const auto state = reader.read({reinterpret_cast<const uint8_t*>(datagram.data()), datagram.size()});
    const char* open = reader.isReadable() ? "pass " : "hold ";
    outcome.steps += state == Open ? open : state == Known ? "known " : "unknown ";
  }
  outcome.name = reader.hello().name();
  return outcome;
}

TEST(QuicInitial, AssemblesTheHello) {
  const struct {
    const char* file;
    std::string steps, name = "held.example";
  } kCases[] = {
      {"rfc9001", "known ", "example.com"},  // RFC 9001, appendix A.2: version 1
      {"rfc9369", "known ", "example.com"},  // RFC 9369, appendix A.2: version 2
      {"chromium_1", "pass known "},
      {"firefox_1", "pass known "},
      {"coalesced", "known "},                     // two packets and zeros in a datagram
      {"cut_numbers", "pass known "},              // a large packet number, then numbers cut to a byte
      {"acknowledgments", "pass known "},          // ACK frames ahead of the hello
      {"retry", "pass pass known "},               // another connection of the same socket, with the token of a Retry
      {"server_id", "pass known "},                // the second datagram has a connection ID that the server chose
      {"zero_rtt", "hold pass hold hold known "},  // 0-RTT packets, alone and after an Initial packet
      {"finished_handshake", "pass hold hold hold known "},  // packets after a handshake, between parts of a hello
      {"unknown_version", "hold pass known "},  // a packet of an unknown version, then packets of version 1
      {"two_ids", "hold known "},  // the second packet of a datagram has another connection ID than the first
      {"touching_pieces", "pass pass pass pass pass pass pass known "},   // 70 touching pieces behind a gap
      {"scattered_pieces", "pass pass pass pass pass pass hold known "},  // 70 pieces that do not touch
      {"beyond_limit", "pass hold known "},                               // bytes of the hello beyond kLimit
  };
  for (const auto& c : kCases) {
    const Outcome outcome = read_all(quic_records(c.file));
    EXPECT_EQ(outcome.steps, c.steps) << c.file;
    EXPECT_EQ(outcome.name, c.name) << c.file;
  }
}

TEST(QuicInitial, GivesUpWhereNoNameCanCome) {
  const char* const kNames[] = {"an empty datagram",
                                "a protocol that sets the highest bit",
                                "a short header, of a connection that moved",
                                "a handshake whose begin was not seen",
                                "an Initial with unknown keys",
                                "a length beyond the datagram",
                                "a connection ID of 21 bytes",
                                "a packet too short for its protection",
                                "a hello without a name"};
  const std::vector<std::string> datagrams = quic_records("no_name");
  ASSERT_EQ(datagrams.size(), std::size(kNames) + 3);
  for (size_t i = 0; i < std::size(kNames); ++i) EXPECT_EQ(read_all({datagrams[i]}).steps, "unknown ") << kNames[i];
  const std::string limits = read_all({datagrams.end() - 3, datagrams.end()}).steps;
  EXPECT_EQ(limits, "hold hold pass ") << "bytes beyond the limit, a cut frame, and bytes up to the limit";
}

}  // namespace
}  // namespace orvane
