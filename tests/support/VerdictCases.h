#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "database/db.h"
#include "database/db_browsers.h"
#include "platform/StandIn.h"
#include "support/ClientHello.h"

namespace orvane {

// The programs of the cases, by their process identifiers.
enum CaseProgram : int32_t { kCaseBrowser = 10, kCaseHelper = 11, kCaseOther = 12 };

// A connection, and the verdict on it, which must be the same on each system.
struct VerdictCase {
  const char* name;
  std::vector<std::string> list;
  CaseProgram program;
  uint16_t port;
  std::string bytes;  // the first bytes that the program sends
  bool drops;
};

inline std::vector<VerdictCase> verdict_cases() {
  const auto hello = [](const std::string& host, size_t record = 16384) {
    return tls::hello(tls::extension(10, "groups") + tls::server_name(host), record);
  };
  const auto request = [](const std::string& host, const std::string& path = "/") {
    return "GET " + path + " HTTP/1.1\r\nAccept: */*\r\nHost: " + host + "\r\n\r\n";
  };
  const std::vector<std::string> held = {"held.example"}, two = {"a.example", "held.example"};
  const std::string longPath = "/?" + std::string(100'000, 'q');
  return {
      {"hello", held, kCaseBrowser, 443, hello("held.example"), true},
      {"hello, second name of the list", two, kCaseBrowser, 443, hello("held.example"), true},
      {"hello, empty list", {}, kCaseBrowser, 443, hello("held.example"), false},
      {"hello in short records", held, kCaseBrowser, 443, hello("held.example", 20), true},
      {"hello with capitals and a final dot", held, kCaseBrowser, 443, hello("HELD.example."), true},
      {"hello to a subdomain of a listed name", held, kCaseBrowser, 443, hello("www.held.example"), false},
      {"hello to a name that contains a listed one", held, kCaseBrowser, 443, hello("notheld.example"), false},
      {"hello without a name", held, kCaseBrowser, 443, tls::hello(tls::extension(10, "groups")), false},
      {"hello of a browser's helper", held, kCaseHelper, 443, hello("held.example"), true},
      {"hello of another program", held, kCaseOther, 443, hello("held.example"), false},
      {"request", held, kCaseBrowser, 80, request("held.example"), true},
      {"request with a port, capitals and a final dot", held, kCaseBrowser, 80, request("Held.Example.:80"), true},
      {"request with a long path", held, kCaseBrowser, 80, request("held.example", longPath), true},
      {"request to another host with a long path", held, kCaseBrowser, 80, request("a.example", longPath), false},
      {"request of another program", held, kCaseOther, 80, request("held.example"), false},
      {"request to an address", held, kCaseBrowser, 80, request("192.0.2.1"), false},
      {"request to a listed address", {"192.0.2.1"}, kCaseBrowser, 80, request("192.0.2.1"), true},
      {"request on the port of TLS", held, kCaseBrowser, 443, request("held.example"), true},
      {"hello on the port of HTTP", held, kCaseBrowser, 80, hello("held.example"), true},
      {"request to another host with a listed name in its path", held, kCaseBrowser, 80,
       request("a.example", "/held.example"), false},
      {"another protocol", held, kCaseBrowser, 443, "SSH-2.0-OpenSSH\r\n", false},
  };
}

// A host name that the system knows of a flow when the flow opens, alone or in a URL, as a user may type it.
struct NamedCase {
  const char* list;
  const char* host;
  bool drops;
};

inline constexpr NamedCase kNamedCases[] = {
    {"localhost", "localhost", true},  {"localhost", "LocalHost", true},     {"localhost", "localhost.", true},
    {"localhost", "LOCALHOST.", true}, {"held.example", "localhost", false}, {".localhost", "LOCALHOST.", true},
};

// Makes the list and the programs of the case.
inline void set_up(const VerdictCase& each) {
  Value::Set names;
  for (const std::string& name : each.list) names.insert(Value::string(name));
  db_hostname_set(Value::set(std::move(names)));
  db_browser_add(Value::string("browser"));
  stand_in::security.identifiers = {
      {kCaseBrowser, "org.browser"}, {kCaseHelper, "org.helper"}, {kCaseOther, "org.other"}};
  stand_in::security.responsible = {{kCaseHelper, kCaseBrowser}};
}

// The bytes as they arrive: in pieces of at most this length.
inline std::vector<std::string> pieces_of(const std::string& bytes, size_t length) {
  std::vector<std::string> pieces;
  for (size_t at = 0; at < bytes.size(); at += length) pieces.push_back(bytes.substr(at, length));
  return pieces;
}
inline constexpr size_t kPieceLengths[] = {1400, 7};

}  // namespace orvane
