#include "platform/linux/foundation/PropertyListCheck.h"

#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

namespace orvane {
namespace {

// What libplist's 32 bits of seconds since 2001 can say, in whole years and in seconds.
constexpr int kFirstYear = 1933, kLastYear = 2068;
constexpr double kMaxSeconds = 2147483647;

// ---- XML ----------------------------------------------------------------------------------------------------------

constexpr std::string_view kWhiteSpace = " \t\r\n";

std::string_view trimmed(std::string_view text) {
  size_t first = text.find_first_not_of(kWhiteSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
}

template <class T, class... Form>
bool reads_whole(std::string_view digits, T* number, Form... form) {
  const char* end = digits.data() + digits.size();
  auto [stop, error] = std::from_chars(digits.data(), end, *number, form...);
  return error == std::errc() && stop == end && !digits.empty();
}

// libplist would take a leading zero for octal, and stop silently at a letter.
bool is_integer(std::string_view text) {
  bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (hexadecimal) text.remove_prefix(2);
  if (!hexadecimal && text.size() > 1 && text.front() == '0') return false;
  uint64_t magnitude = 0;
  return reads_whole(text, &magnitude, hexadecimal ? 16 : 10) && (!negative || magnitude <= uint64_t{1} << 63);
}

bool is_real(std::string_view text) {
  bool plus = text.starts_with('+');
  if (plus) text.remove_prefix(1);
  double number = 0;
  return reads_whole(text, &number) && !(plus && text.front() == '-');
}

// YYYY-MM-DDTHH:MM:SSZ
bool is_date(std::string_view text) {
  constexpr std::string_view kForm = "0000-00-00T00:00:00Z";
  if (text.size() != kForm.size()) return false;
  for (size_t i = 0; i < kForm.size(); ++i) {
    bool digit = text[i] >= '0' && text[i] <= '9';
    if (kForm[i] == '0' ? !digit : text[i] != kForm[i]) return false;
  }
  struct Field {
    size_t at, length;
    int least, most;
  };
  constexpr std::array<Field, 6> kFields = {
      {{0, 4, kFirstYear, kLastYear}, {5, 2, 1, 12}, {8, 2, 1, 31}, {11, 2, 0, 23}, {14, 2, 0, 59}, {17, 2, 0, 60}}};
  return std::all_of(kFields.begin(), kFields.end(), [text](const Field& field) {
    int number = 0;
    return reads_whole(text.substr(field.at, field.length), &number) && number >= field.least && number <= field.most;
  });
}

bool is_base64(std::string_view text) {
  return text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/= \t\r\n") ==
         std::string_view::npos;
}

bool is_blank(std::string_view text) { return trimmed(text).empty(); }
bool is_anything(std::string_view) { return true; }

// An element of a list, and the rule for the characters that stand in it directly.
struct Element {
  std::string_view name;
  bool holdsElements;
  bool (*accepts)(std::string_view);
};

constexpr std::array<Element, 11> kElements = {{{"plist", true, is_blank},
                                                {"dict", true, is_blank},
                                                {"array", true, is_blank},
                                                {"key", false, is_anything},
                                                {"string", false, is_anything},
                                                {"data", false, is_base64},
                                                {"integer", false, is_integer},
                                                {"real", false, is_real},
                                                {"date", false, is_date},
                                                {"true", false, is_blank},
                                                {"false", false, is_blank}}};

// Follows libxml2 through a list. It builds nothing, loads nothing and expands no entity: with no handler for
// declarations there are none.
class XMLCheck {
 public:
  std::optional<std::string> run(std::span<const uint8_t> bytes) {
    static std::once_flag initialised;
    std::call_once(initialised, xmlInitParser);
    if (bytes.size() > INT_MAX) return "it is too long";
    xmlSAXHandler handler = callbacks();
    auto free = [](xmlParserCtxtPtr context) {
      xmlFreeDoc(context->myDoc);  // libxml2 makes one to note a declaration in, whatever the handlers are
      xmlFreeParserCtxt(context);
    };
    std::unique_ptr<xmlParserCtxt, decltype(free)> context(xmlCreatePushParserCtxt(&handler, this, nullptr, 0, nullptr),
                                                           free);
    if (!context) return "there is no memory to read it";
    context_ = context.get();
    xmlCtxtUseOptions(context_, XML_PARSE_NONET);
    xmlParseChunk(context_, reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()), 0);
    xmlParseChunk(context_, nullptr, 0, 1);
    const char* encoding = reinterpret_cast<const char*>(context_->encoding);
    if (!fault_ && encoding != nullptr && strcasecmp(encoding, "UTF-8") != 0) fault_ = "its encoding is not UTF-8";
    if (!fault_ && context_->wellFormed == 0) fault_ = "it is not well-formed XML";
    return fault_;
  }

 private:
  struct Open {
    const Element* element;
    size_t children = 0;
    std::string text;
  };

  static XMLCheck& self(void* user) { return *static_cast<XMLCheck*>(user); }

  static xmlSAXHandler callbacks() {
    xmlSAXHandler handler{};
    handler.initialized = XML_SAX2_MAGIC;
    handler.startElementNs = [](void* user, const xmlChar* name, const xmlChar* prefix, const xmlChar*, int,
                                const xmlChar**, int, int, const xmlChar**) {
      self(user).start(prefix == nullptr ? reinterpret_cast<const char*>(name) : ":");
    };
    handler.endElementNs = [](void* user, const xmlChar*, const xmlChar*, const xmlChar*) { self(user).end(); };
    handler.characters = [](void* user, const xmlChar* text, int length) {
      self(user).characters({reinterpret_cast<const char*>(text), static_cast<size_t>(length)});
    };
    handler.ignorableWhitespace = handler.characters;
    handler.cdataBlock = handler.characters;
    handler.comment = [](void* user, const xmlChar*) { self(user).interruption(); };
    handler.processingInstruction = [](void* user, const xmlChar*, const xmlChar*) { self(user).interruption(); };
    handler.reference = [](void* user, const xmlChar*) { self(user).fail("it refers to an entity"); };
    handler.entityDecl = [](void* user, const xmlChar*, int, const xmlChar*, const xmlChar*, xmlChar*) {
      self(user).fail("it declares an entity");
    };
    // The error's type differs between versions of libxml2.
    handler.serror = [](void* user, auto* error) {
      if (error->level >= XML_ERR_ERROR) {
        std::string_view message = error->message == nullptr ? "not well-formed" : error->message;
        message = message.substr(0, message.find('\n'));
        self(user).fail("line " + std::to_string(error->line) + ": " + std::string(message));
      }
    };
    return handler;
  }

  void fail(std::string fault) {
    if (!fault_) fault_ = std::move(fault);
    xmlStopParser(context_);
  }

  void fail_here(const std::string& fault) {
    fail("line " + std::to_string(xmlSAX2GetLineNumber(context_)) + ": " + fault);
  }

  void start(std::string_view name) {
    const auto* element = std::find_if(kElements.begin(), kElements.end(), [name](auto& e) { return e.name == name; });
    if (element == kElements.end()) return fail_here("an element that no property list has");
    if (!fits(*element)) return fail_here("<" + std::string(name) + "> does not belong here");
    if (element->holdsElements && open_.size() > kMaxDepth) return fail_here("it is nested too deeply");
    if (!open_.empty()) ++open_.back().children;
    open_.push_back({element, 0, {}});
  }

  // Whether an element may come next in the innermost one that is open.
  bool fits(const Element& element) const {
    bool key = element.name == "key";
    if (open_.empty()) return !key;
    const Open& parent = open_.back();
    if (!parent.element->holdsElements || element.name == "plist") return false;
    if (parent.element->name == "dict") return key == (parent.children % 2 == 0);
    return !key && (parent.element->name == "array" || parent.children == 0);
  }

  void end() {
    if (fault_) return;
    const Open& ended = open_.back();
    std::string_view name = ended.element->name;
    bool whole = true;
    if (name == "dict") whole = ended.children % 2 == 0;
    if (name == "plist") whole = ended.children == 1;
    if (!whole) return fail_here("<" + std::string(name) + "> lacks a value");
    if (!ended.element->accepts(trimmed(ended.text))) return fail_here("this is no " + std::string(name));
    open_.pop_back();
  }

  void characters(std::string_view text) {
    if (fault_ || open_.empty()) return;
    Open& innermost = open_.back();
    if (innermost.element->accepts == is_anything) return;
    // libplist takes a character reference as it is written. libxml2 gives the character that it stands for, and then
    // is just past the reference's semicolon.
    bool referred = context_->input->cur[-1] == ';' && !text.ends_with(';');
    if (referred) return fail_here("a character reference inside of a value");
    innermost.text += text;
  }

  // Outside of text, libplist does not join what a comment parts.
  void interruption() {
    if (fault_ || open_.empty()) return;
    const Element& innermost = *open_.back().element;
    if (innermost.holdsElements || innermost.accepts == is_anything) return;
    fail_here("a comment inside of a value");
  }

  xmlParserCtxtPtr context_ = nullptr;
  std::vector<Open> open_;
  std::optional<std::string> fault_;
};

// ---- binary -------------------------------------------------------------------------------------------------------

// The form is described in Apple's CFBinaryPList.c: "bplist00", the objects, a table of their offsets, and a trailer
// of 32 bytes. An object starts with a byte of type (high half) and size (low half, 15 for "an integer follows").
class BinaryCheck {
 public:
  explicit BinaryCheck(std::span<const uint8_t> bytes) : bytes_(bytes) {}

  std::optional<std::string> run() {
    if (bytes_.size() < kHeader + kTrailer) return "it is cut off";
    size_t trailer = bytes_.size() - kTrailer;
    offsetSize_ = bytes_[trailer + 6];
    referenceSize_ = bytes_[trailer + 7];
    uint64_t count = integer(trailer + 8, 8);
    uint64_t root = integer(trailer + 16, 8);
    uint64_t table = integer(trailer + 24, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8) return "its trailer is damaged";
    if (table < kHeader || table > trailer || count == 0 || count > (trailer - table) / offsetSize_ || root >= count) {
      return "its trailer is damaged";
    }
    table_ = table;
    objects_.resize(count);
    visit(root, 1);
    return fault_;
  }

 private:
  static constexpr size_t kHeader = 8, kTrailer = 32;
  // Bytes, by rough count, that a list may come to: 64 for each use of an object, and what it holds.
  static constexpr uint64_t kMaxCost = uint64_t{64} << 20;
  static constexpr uint64_t kCostOfUse = 64;

  enum class State : uint8_t { New, Open, Done };
  struct Object {
    State state = State::New;
    int height = 0;     // containers above one another, this one included
    uint64_t cost = 0;  // of one use, with everything in it
  };

  uint64_t integer(size_t at, size_t size) const {
    uint64_t number = 0;
    for (size_t i = 0; i < size; ++i) number = number << 8 | bytes_[at + i];
    return number;
  }

  void fail(const char* fault) {
    if (!fault_) fault_ = fault;
  }

  // Whether `count` items of `size` bytes stand between `at` and the offset table.
  bool holds(size_t at, uint64_t count, size_t size) const { return at <= table_ && count <= (table_ - at) / size; }

  // Checks an object and all that it refers to, once; the path to it holds `depth` objects.
  const Object* visit(uint64_t index, int depth) {
    if (index >= objects_.size()) return fail("an object is missing"), nullptr;
    Object& object = objects_[index];
    if (object.state == State::Open) return fail("an object contains itself"), nullptr;
    if (depth + object.height > kMaxDepth + 1) return fail("it is nested too deeply"), nullptr;
    if (object.state == State::Done) return &object;
    object.state = State::Open;
    uint64_t at = integer(table_ + index * offsetSize_, offsetSize_);
    if (at < kHeader || at >= table_) return fail("an object is missing"), nullptr;
    check(object, at, depth);
    object.state = State::Done;
    if (object.cost > kMaxCost) fail("it is too large");
    return fault_ ? nullptr : &object;
  }

  void check(Object& object, size_t at, int depth) {
    uint8_t type = bytes_[at] >> 4, low = bytes_[at] & 0xf;
    ++at;
    uint64_t size = low;
    object.cost = kCostOfUse;
    switch (type) {
      case 0x0:
        if (low != 8 && low != 9) fail("an object is of an unknown type");
        return;
      case 0x1:
        return check_integer(at, low);
      case 0x2:
        if ((low != 2 && low != 3) || !holds(at, 1, size_t{1} << low)) fail("a real number is damaged");
        return;
      case 0x3:
        return check_date(at, low);
      case 0x4:
      case 0x5:
      case 0x6:
        if (!read_size(&at, &size) || !holds(at, size, type == 6 ? 2 : 1)) return fail("a string or data is cut off");
        object.cost += 2 * size;
        if (type != 4) check_text(at, size, type == 6 ? 2 : 1);
        return;
      case 0x8:
        if (!holds(at, 1, low + 1) || low > 7 || integer(at, low + 1) > UINT32_MAX) fail("an identifier is damaged");
        return;
      case 0xa:
      case 0xd:
        if (!read_size(&at, &size) || !holds(at, size, referenceSize_ * (type == 0xd ? 2 : 1))) {
          return fail("an array or a dictionary is cut off");
        }
        if (type == 0xd) check_keys(at, size);
        return check_elements(object, at, size * (type == 0xd ? 2 : 1), depth);
      default:
        return fail("an object is of an unknown type");
    }
  }

  // A size of 15 stands for the integer object that follows.
  bool read_size(size_t* at, uint64_t* size) const {
    if (*size != 0xf) return true;
    if (!holds(*at, 1, 1) || (bytes_[*at] >> 4) != 0x1 || (bytes_[*at] & 0xf) > 3) return false;
    size_t length = size_t{1} << (bytes_[*at] & 0xf);
    ++*at;
    if (!holds(*at, 1, length)) return false;
    *size = integer(*at, length);
    *at += length;
    return true;
  }

  void check_integer(size_t at, uint8_t low) {
    if (low > 4 || !holds(at, 1, size_t{1} << low)) return fail("an integer is damaged");
    if (low == 4 && integer(at, 8) != 0) fail("an integer is too large");
  }

  void check_date(size_t at, uint8_t low) {
    if (low != 3 || !holds(at, 1, 8)) return fail("a date is damaged");
    uint64_t bits = integer(at, 8);
    double seconds = 0;
    std::memcpy(&seconds, &bits, sizeof seconds);
    if (!(seconds > -kMaxSeconds && seconds < kMaxSeconds)) fail("a date is out of range");
  }

  // ASCII, or UTF-16 with its surrogates in pairs.
  void check_text(size_t at, uint64_t count, size_t unitSize) {
    bool led = false;
    for (uint64_t i = 0; i < count; ++i) {
      uint64_t unit = integer(at + i * unitSize, unitSize);
      bool trail = unitSize == 2 && unit >= 0xdc00 && unit < 0xe000;
      if (unit == 0 || (unitSize == 1 && unit > 0x7f) || trail != led) return fail("a string is damaged");
      led = unitSize == 2 && unit >= 0xd800 && unit < 0xdc00;
    }
    if (led) fail("a string is damaged");
  }

  void check_keys(size_t at, uint64_t count) {
    for (uint64_t i = 0; i < count && !fault_; ++i) {
      uint64_t key = integer(at + i * referenceSize_, referenceSize_);
      uint64_t offset = key < objects_.size() ? integer(table_ + key * offsetSize_, offsetSize_) : 0;
      bool string = offset >= kHeader && offset < table_ && (bytes_[offset] >> 4 == 5 || bytes_[offset] >> 4 == 6);
      if (!string) fail("a key is not a string");
    }
  }

  void check_elements(Object& object, size_t at, uint64_t count, int depth) {
    object.height = 1;
    if (depth > kMaxDepth) return fail("it is nested too deeply");
    for (uint64_t i = 0; i < count; ++i) {
      const Object* element = visit(integer(at + i * referenceSize_, referenceSize_), depth + 1);
      if (element == nullptr) return;
      object.height = std::max(object.height, element->height + 1);
      object.cost += element->cost;
      if (object.cost > kMaxCost) return fail("it is too large");
    }
  }

  std::span<const uint8_t> bytes_;
  size_t offsetSize_ = 0, referenceSize_ = 0, table_ = 0;
  std::vector<Object> objects_;
  std::optional<std::string> fault_;
};

}  // namespace

std::optional<std::string> fault_of_xml_list(std::span<const uint8_t> bytes) { return XMLCheck().run(bytes); }

std::optional<std::string> fault_of_binary_list(std::span<const uint8_t> bytes) { return BinaryCheck(bytes).run(); }

}  // namespace orvane
