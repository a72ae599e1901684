#include "companion/subscriptions/Subscription.h"

#include <algorithm>
#include <charconv>
#include <functional>

#include "companion/list/BlockListLine.h"
#include "companion/text/HostnameList.h"
#include "companion/text/Input.h"
#include "companion/text/TimeText.h"

namespace orvane {
namespace {

constexpr std::string_view kSecure = "https://";
constexpr std::string_view kPlain = "http://";
constexpr std::string_view kGroup = "group=", kEvery = "every=", kKey = "key=", kAccept = "accept=";
constexpr std::string_view kInsecure = "insecure";

bool is_letter_or_digit(char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); }

// Whether the host and port of a URL have no port, an empty one, or a number that TCP allows.
bool has_valid_port(std::string_view authority) {
  const size_t colon = authority.find(':', authority.starts_with('[') ? authority.find(']') : 0);
  if (colon == std::string_view::npos || colon + 1 == authority.size()) return true;
  const std::string_view text = authority.substr(colon + 1);
  uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  return error == std::errc() && end == text.data() + text.size() && port > 0;
}

// Calls visit(number, whole line, line without its comment and the white space around it) for each line.
void for_each_line(std::string_view text,
                   const std::function<void(size_t, std::string_view, std::string_view)>& visit) {
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  for (size_t number = 1; !text.empty(); ++number) {
    const size_t end = std::min(text.find('\n'), text.size() - 1);
    const std::string_view line = text.substr(0, end + 1);
    visit(number, line, trimmed(without_comment(line.ends_with('\n') ? line.substr(0, end) : line)));
    text.remove_prefix(end + 1);
  }
}

// Reads the words after the name and the URL. Returns what is wrong with them.
std::string read_options(std::string_view words, Subscription& subscription) {
  while (!words.empty()) {
    const std::string_view word = take_word(words);
    std::string fault;
    if (word.starts_with(kGroup)) {
      subscription.group = word.substr(kGroup.size());
      fault = group_name_fault(subscription.group);
    } else if (word.starts_with(kEvery)) {
      subscription.every = read_interval(word.substr(kEvery.size()));
    } else if (word.starts_with(kKey)) {
      subscription.key = word.substr(kKey.size());
      fault = key_fault(subscription.key);
    } else if (word == kInsecure) {
      subscription.isInsecure = true;
    } else {
      fault = in_quotes(word) + " is unknown: a line is NAME URL [group=GROUP] [every=24h] [key=KEY] [insecure]";
    }
    if (!fault.empty()) return fault;
  }
  return "";
}

std::string read_words(std::string_view words, Subscription& subscription) {
  subscription.name = take_word(words);
  subscription.url = take_word(words);
  if (std::string fault = subscription_name_fault(subscription.name); !fault.empty()) return fault;
  try {
    if (std::string fault = read_options(words, subscription); !fault.empty()) return fault;
  } catch (const InputError& error) {
    return error.what();
  }
  return url_fault(subscription.url, subscription.isInsecure);
}

}  // namespace

std::string subscription_name_fault(std::string_view name) {
  constexpr size_t kLongest = 64;
  const bool hasForm = std::all_of(name.begin(), name.end(), [](char c) { return is_letter_or_digit(c) || c == '-'; });
  if (hasForm && !name.empty() && name.size() <= kLongest && name.front() != '-') return "";
  return "a subscription's name has small letters, digits and hyphens, at most 64 of them, and no hyphen first";
}

std::string_view authority_of(std::string_view url) {
  const size_t begin = url.find("://");
  if (begin == std::string_view::npos) return {};
  url.remove_prefix(begin + 3);
  return url.substr(0, url.find_first_of("/?#"));
}

std::string url_fault(std::string_view url, bool isInsecure) {
  constexpr size_t kLongest = 2000;
  const bool isPlain = url.starts_with(kPlain);
  if (isPlain && !isInsecure)
    return "http lets anybody on the network path change the list: use https, or give --insecure (in the file: "
           "insecure)";
  if (!isPlain && !url.starts_with(kSecure)) return "it is no address of a web server: write https://...";
  if (url.size() > kLongest) return "it has more than 2000 characters: use a shorter URL";
  if (std::any_of(url.begin(), url.end(), [](char c) { return c <= ' ' || c > '~'; }))
    return "it has a space, or a character that is not ASCII: write such a character as %XX, and an international host "
           "as its A-label (xn--...)";
  const std::string_view authority = authority_of(url);
  if (authority.find('@') != std::string_view::npos)
    return "it has a user name or a password, which other users could read: use a URL without them";
  if (authority.empty() || authority.front() == ':') return "it has no host: write https://HOST/PATH";
  if (!has_valid_port(authority)) return "it has no valid port: give a number from 1 to 65535, or no port";
  return "";
}

std::string key_fault(std::string_view key) {
  constexpr std::string_view kStart = "RW";  // the algorithm, "Ed", in Base64
  constexpr size_t kLength = 56;
  const bool hasForm =
      key.size() == kLength && key.starts_with(kStart) && std::all_of(key.begin(), key.end(), [](char c) {
        return is_letter_or_digit(c) || (c >= 'A' && c <= 'Z') || c == '+' || c == '/';
      });
  return hasForm ? "" : "it is no public key of minisign: give the key (RW...) or the file minisign.pub";
}

std::chrono::seconds read_interval(std::string_view text) {
  const std::chrono::seconds every = read_duration(text);
  if (every < kShortestInterval) throw InputError("too often: " + in_quotes(text) + ": give at least 1h");
  return every;
}

std::string name_for_url(std::string_view url, const std::vector<Subscription>& taken) {
  constexpr size_t kLongest = 40;
  std::string_view host = authority_of(url);
  host = host.substr(0, host.starts_with('[') ? host.find(']') : host.find(':'));
  if (host.starts_with("www.")) host.remove_prefix(4);
  std::string base;
  for (char c : host.substr(0, kLongest)) {
    const char small = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    if (is_letter_or_digit(small)) base += small;
    if (!is_letter_or_digit(small) && !base.empty() && base.back() != '-') base += '-';
  }
  while (base.ends_with('-')) base.pop_back();
  if (base.empty()) base = "list";
  std::string name = base;
  const auto isTaken = [&](const Subscription& other) { return other.name == name; };
  for (size_t number = 2; std::any_of(taken.begin(), taken.end(), isTaken); ++number)
    name = base + "-" + std::to_string(number);
  return name;
}

std::string line_of(const Subscription& subscription) {
  const Subscription defaults;
  std::string line = subscription.name + " " + subscription.url;
  if (subscription.group != defaults.group) line.append(" ").append(kGroup).append(subscription.group);
  if (subscription.every != defaults.every) line.append(" ").append(kEvery).append(delay_text(subscription.every));
  if (!subscription.key.empty()) line.append(" ").append(kKey).append(subscription.key);
  if (subscription.isInsecure) line.append(" ").append(kInsecure);
  return line;
}

const Subscription* SubscriptionFile::find(std::string_view nameOrUrl) const {
  const auto found = std::find_if(subscriptions.begin(), subscriptions.end(), [&](const Subscription& each) {
    return each.name == nameOrUrl || each.url == nameOrUrl;
  });
  return found == subscriptions.end() ? nullptr : &*found;
}

SubscriptionFile read_subscriptions(std::string_view text) {
  SubscriptionFile file;
  for_each_line(text, [&](size_t number, std::string_view, std::string_view words) {
    if (words.empty()) return;
    Subscription subscription;
    std::string fault = read_words(words, subscription);
    const auto isSame = [&](const Subscription& other) { return other.name == subscription.name; };
    if (fault.empty() && std::any_of(file.subscriptions.begin(), file.subscriptions.end(), isSame))
      fault = "an earlier line has the same name: give this subscription another one";
    if (fault.empty() && file.subscriptions.size() >= kMostSubscriptions)
      fault = "there are more than 100 subscriptions: remove some";
    if (fault.empty()) {
      file.subscriptions.push_back(std::move(subscription));
    } else if (file.badLineCount++ < SubscriptionFile::kBadLinesKept) {
      const bool isNamed = subscription_name_fault(subscription.name).empty();
      file.badLines.push_back({number, isNamed ? subscription.name : "", std::move(fault)});
    }
  });
  return file;
}

std::string without_subscription(std::string_view text, std::string_view name) {
  std::string result;
  for_each_line(text, [&](size_t, std::string_view line, std::string_view words) {
    if (words.empty() || take_word(words) != name) result.append(line);
  });
  return result;
}

RefreshRequests read_requests(std::string_view text) {
  RefreshRequests requests;
  for_each_line(text, [&](size_t, std::string_view, std::string_view words) {
    const std::string_view name = take_word(words), number = take_word(words), accept = take_word(words);
    RefreshRequest request;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), request.number);
    if (error != std::errc() || end != number.data() + number.size() || !subscription_name_fault(name).empty()) return;
    if (accept.starts_with(kAccept)) request.accepted = accept.substr(kAccept.size());
    if (requests.size() < kMostSubscriptions) requests.insert_or_assign(std::string(name), std::move(request));
  });
  return requests;
}

std::string text_of(const RefreshRequests& requests) {
  std::string text = "# The latest requests of orvanectl to fetch subscriptions, for orvane-fetcher.\n";
  for (const auto& [name, request] : requests) {
    text += name + " " + std::to_string(request.number);
    if (!request.accepted.empty()) text.append(" ").append(kAccept).append(request.accepted);
    text += '\n';
  }
  return text;
}

}  // namespace orvane
