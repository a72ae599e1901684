// The client and the server of the network benchmark, on loopback addresses of a network namespace.
//
//   net_client serve PORT                         serves the clients of `load` and `stream`
//   net_client load PORT COUNT CLIENTS PAUSE [NAME_SERVER_PORT]
//                                                 makes COUNT connections from CLIENTS threads, and prints the times of
//                                                 the connections; a thread waits PAUSE milliseconds before each
//                                                 connection. If NAME_SERVER_PORT is given, a time includes a DNS
//                                                 question to this port of 127.0.0.1
//   net_client stream PORT MEBIBYTES              prints the MiB/s of one long connection
//   net_client datagrams PORT COUNT               sends two datagrams from each of COUNT sockets to one more socket at
//                                                 PORT, and prints how long the first and the second took to arrive
//
// A connection's time includes connect, request and response. All commands but `serve` print one line of JSON. `load`
// keeps as many other files open as a browser does, because the extension may have to read all descriptors of a process
// to find out whether the process owns a socket.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kOpenFiles = 300;
constexpr std::string_view kRequest = "GET / HTTP/1.1\r\nHost: news.example\r\nConnection: close\r\n\r\n";
constexpr std::string_view kResponse = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\nOK";

sockaddr_in loopback(uint16_t port, uint32_t host) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(0x7f000000 + host);
  return address;
}

bool send_all(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t count = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

// If the first bytes are a request, answers the request. Otherwise reads the stream to its end. Closes the socket.
void answer(int socket) {
  static thread_local std::vector<char> buffer(1 << 18);
  ssize_t count = recv(socket, buffer.data(), buffer.size(), 0);
  bool request = count > 0 && std::string_view(buffer.data(), static_cast<size_t>(count)).ends_with("\r\n\r\n");
  if (request) send_all(socket, kResponse);
  while (!request && count > 0) count = recv(socket, buffer.data(), buffer.size(), 0);
  close(socket);
}

int serve(uint16_t port) {
  int listener = socket(AF_INET, SOCK_STREAM, 0), on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address = loopback(port, 0);
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(listener, 4096) != 0) {
    std::perror("net_client");
    return 1;
  }
  std::vector<std::thread> servers;
  for (int i = 0; i < 64; ++i) {
    servers.emplace_back([listener] {
      for (int client; (client = accept(listener, nullptr, nullptr)) >= 0;) answer(client);
    });
  }
  std::puts("ready");
  std::fflush(stdout);
  for (auto& server : servers) server.join();
  return 1;
}

int connect_to(uint16_t port, uint32_t host) {
  int client = socket(AF_INET, SOCK_STREAM, 0), on = 1;
  setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  sockaddr_in address = loopback(port, host);
  if (connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return client;
  close(client);
  return -1;
}

// Makes one connection. Returns false unless the whole response arrives.
bool fetch(uint16_t port, uint32_t host) {
  int client = connect_to(port, host);
  if (client < 0) return false;
  char buffer[256];
  size_t size = 0;
  bool sent = send_all(client, kRequest);
  for (ssize_t count = 1; sent && count > 0 && size < kResponse.size(); size += static_cast<size_t>(count)) {
    count = std::max<ssize_t>(recv(client, buffer + size, sizeof buffer - size, 0), 0);
  }
  close(client);
  return std::string_view(buffer, size) == kResponse;
}

// Asks a name server for the address of news.example, as the C library does: from a new socket. Returns false unless an
// answer arrives.
bool look_up(uint16_t nameServerPort) {
  // RFC 1035, section 4.1: a header with one question, the name, type A, class IN.
  constexpr char kQuestion[] = "\0\1\1\0\0\1\0\0\0\0\0\0\4news\7example\0\0\1\0\1";
  constexpr size_t kSize = sizeof kQuestion - 1;
  const int client = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = loopback(nameServerPort, 1);
  const timeval second{1, 0};
  setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &second, sizeof second);
  char answer[512];
  const bool found = connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                     send(client, kQuestion, kSize, 0) == static_cast<ssize_t>(kSize) &&
                     recv(client, answer, sizeof answer, 0) > static_cast<ssize_t>(kSize);
  close(client);
  return found;
}

int load(uint16_t port, size_t count, size_t clients, std::chrono::milliseconds pause, uint16_t nameServerPort) {
  for (int i = 0; i < kOpenFiles; ++i) {
    if (open("/dev/null", O_RDONLY | O_CLOEXEC) < 0) return 1;
  }
  std::vector<std::vector<double>> times(clients);
  std::atomic<size_t> lost{0};
  auto start = Clock::now();
  std::vector<std::thread> threads;
  for (size_t i = 0; i < clients; ++i) {
    threads.emplace_back([&, i] {
      for (size_t n = i; n < count; n += clients) {
        if (pause.count() > 0) std::this_thread::sleep_for(pause);
        auto begin = Clock::now();
        if (nameServerPort != 0 && !look_up(nameServerPort)) ++lost;
        if (!fetch(port, static_cast<uint32_t>(1 + n % 8))) ++lost;
        times[i].push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
      }
    });
  }
  for (auto& thread : threads) thread.join();
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::vector<double> all;
  for (const auto& part : times) all.insert(all.end(), part.begin(), part.end());
  std::sort(all.begin(), all.end());
  std::printf("{\"median\": %.1f, \"p99\": %.1f, \"rate\": %.0f, \"lost\": %zu}\n", all[all.size() / 2],
              all[all.size() * 99 / 100], static_cast<double>(count) / seconds, lost.load());
  return 0;
}

int stream(uint16_t port, size_t mebibytes) {
  int client = connect_to(port, 1);
  const std::string block(1 << 20, 'x');
  auto start = Clock::now();
  bool sent = client >= 0;
  for (size_t i = 0; sent && i < mebibytes; ++i) sent = send_all(client, block);
  shutdown(client, SHUT_WR);
  char end = 0;
  if (!sent || recv(client, &end, 1, 0) != 0) return 1;
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::printf("{\"rate\": %.1f}\n", static_cast<double>(mebibytes) / seconds);
  return 0;
}

int datagrams(uint16_t port, size_t count) {
  const int receiver = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = loopback(port, 1);
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  const timeval second{1, 0};
  setsockopt(receiver, SOL_SOCKET, SO_RCVTIMEO, &second, sizeof second);
  if (bind(receiver, generic, sizeof address) != 0) return std::perror("bind"), 1;
  std::vector<double> times[2];  // microseconds of the first and of the second datagram
  size_t lost = 0;
  for (size_t i = 0; i < count; ++i) {
    const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    connect(sender, generic, sizeof address);
    for (auto& each : times) {
      char text[] = "a datagram of a program that is no browser";
      const auto start = Clock::now();
      const bool arrived = send(sender, text, sizeof text, 0) > 0 && recv(receiver, text, sizeof text, 0) > 0;
      if (!arrived) ++lost;
      each.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    close(sender);
  }
  for (auto& each : times) std::nth_element(each.begin(), each.begin() + static_cast<ptrdiff_t>(count / 2), each.end());
  std::printf("{\"first\": %.2f, \"later\": %.2f, \"lost\": %zu}\n", times[0][count / 2], times[1][count / 2], lost);
  return 0;
}

}  // namespace

int main(int count, char** arguments) {
  auto number = [&](int i) { return i < count ? std::strtoul(arguments[i], nullptr, 10) : 0; };
  std::string_view what = count > 1 ? arguments[1] : "";
  auto port = static_cast<uint16_t>(number(2));
  if (what == "serve" && port != 0) return serve(port);
  if (what == "load" && number(3) != 0 && number(4) != 0) {
    return load(port, number(3), number(4), std::chrono::milliseconds(number(5)), static_cast<uint16_t>(number(6)));
  }
  if (what == "stream" && number(3) != 0) return stream(port, number(3));
  if (what == "datagrams" && number(3) != 0) return datagrams(port, number(3));
  std::fputs(
      "usage: net_client serve PORT | load PORT COUNT CLIENTS PAUSE [NAME_SERVER_PORT] | stream PORT MEBIBYTES | "
      "datagrams PORT COUNT\n",
      stderr);
  return 2;
}
