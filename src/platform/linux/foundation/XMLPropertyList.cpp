#include "platform/linux/foundation/XMLPropertyList.h"

#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <resolv.h>

#include <algorithm>
#include <array>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/DateText.h"
#include "platform/linux/base/Text.h"

namespace orvane {
namespace {

// ---- Each of these functions makes the value of an element from the element's text. Nil if the text is invalid. ----

Value string_value(std::string_view text) { return Value::string(text); }

Value integer_value(std::string_view text) {
  text = trim(text);
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (hexadecimal) text.remove_prefix(2);
  const auto magnitude = parse_number<uint64_t>(text, hexadecimal ? 16 : 10);
  if (!magnitude || (negative && *magnitude > uint64_t{1} << 63)) return nullptr;
  if (negative) return Value::number(static_cast<int64_t>(0 - *magnitude));
  return *magnitude <= INT64_MAX ? Value::number(static_cast<int64_t>(*magnitude)) : Value::unsignedNumber(*magnitude);
}

Value real_value(std::string_view text) {
  text = trim(text);
  const bool plus = text.starts_with('+');
  if (plus) text.remove_prefix(1);
  if (plus && text.starts_with('-')) return nullptr;
  const auto number = parse_number<double>(text);
  return number ? Value::real(*number) : Value();
}

// The text has the form YYYY-MM-DDTHH:MM:SSZ.
Value date_value(std::string_view text) {
  text = trim(text);
  if (text.size() != std::string_view("0000-00-00T00:00:00Z").size() || text[10] != 'T' || text.back() != 'Z') {
    return nullptr;
  }
  const auto absoluteTime = absolute_time_of_text(text);
  return absoluteTime ? Value::date(*absoluteTime) : Value();
}

// The text is Base64, and may contain white space anywhere.
Value data_value(std::string_view text) {
  std::vector<uint8_t> bytes(text.size() / 4 * 3 + 3);
  const int length = b64_pton(std::string(text).c_str(), bytes.data(), bytes.size());
  return length < 0 ? Value() : Value::data(std::span(bytes).first(static_cast<size_t>(length)));
}

Value true_value(std::string_view text) { return trim(text).empty() ? Value::boolean(true) : Value(); }
Value false_value(std::string_view text) { return trim(text).empty() ? Value::boolean(false) : Value(); }

struct Element {
  std::string_view name;
  Value (*valueOf)(std::string_view);  // null for a container
};

constexpr std::array<Element, 11> kElements = {{{"plist", nullptr},
                                                {"dict", nullptr},
                                                {"array", nullptr},
                                                {"key", string_value},
                                                {"string", string_value},
                                                {"data", data_value},
                                                {"integer", integer_value},
                                                {"real", real_value},
                                                {"date", date_value},
                                                {"true", true_value},
                                                {"false", false_value}}};

// Builds the value from libxml2's SAX events, in one pass.
class XMLReader {
 public:
  explicit XMLReader(size_t maxDepth) : maxDepth_(maxDepth) {}

  Value read(std::span<const uint8_t> bytes, std::string* fault) {
    static std::once_flag initialised;
    std::call_once(initialised, xmlInitParser);
    // By default libxml2 prints encoding errors to standard error. A function that does nothing prevents that.
    xmlSetStructuredErrorFunc(nullptr, [](void*, auto*) {});
    std::unique_ptr<xmlParserCtxt, decltype(&xmlFreeParserCtxt)> context(xmlNewParserCtxt(), xmlFreeParserCtxt);
    if (!context) {
      *fault = "not enough memory to read it";
      return nullptr;
    }
    context_ = context.get();
    *context_->sax = handlers();
    context_->userData = this;
    // Even with these handlers, libxml2 makes a document when it parses certain declarations, so the result must be
    // freed.
    xmlFreeDoc(xmlCtxtReadMemory(context_, reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()),
                                 nullptr, nullptr, XML_PARSE_NONET));
    if (context_->wellFormed == 0) fail("it is not well-formed XML");
    if (fault_.empty()) return root_;
    *fault = fault_;
    return nullptr;
  }

 private:
  // An element whose start tag has been read, but not its end tag.
  struct Open {
    const Element* element;
    std::string text;
    Value::Array children;  // in a dictionary: keys and values alternate
  };

  static XMLReader& self(void* user) { return *static_cast<XMLReader*>(user); }

  // None of these handlers loads a DTD or resolves entities. So a reference to an entity would silently expand to
  // nothing; therefore a list that declares an entity is refused.
  static xmlSAXHandler handlers() {
    xmlSAXHandler handler{};
    handler.initialized = XML_SAX2_MAGIC;
    handler.startDocument = [](void* user) { self(user).checkEncoding(); };
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
    handler.entityDecl = [](void* user, const xmlChar*, int, const xmlChar*, const xmlChar*, xmlChar*) {
      self(user).fail("it declares an entity");
    };
    // The parameter is `auto`, because the error's type differs between versions of libxml2.
    handler.serror = [](void* user, auto* error) {
      if (error->level < XML_ERR_ERROR) return;
      const std::string_view message = error->message == nullptr ? "not well-formed" : error->message;
      self(user).failAt(error->line, message.substr(0, message.find('\n')));
    };
    return handler;
  }

  // Records the fault, unless an earlier fault is recorded, and stops the parser.
  void fail(std::string fault) {
    if (fault_.empty()) fault_ = std::move(fault);
    xmlStopParser(context_);
  }
  void failAt(int line, std::string_view fault) { fail("line " + std::to_string(line) + ": " + std::string(fault)); }
  void failHere(std::string_view fault) { failAt(xmlSAX2GetLineNumber(context_), fault); }

  // Refuses every encoding except UTF-8 and UTF-16: to convert most other encodings, the C library would load shared
  // objects.
  void checkEncoding() {
    const xmlCharEncodingHandler* converter = context_->input->buf->encoder;
    const std::string_view name = converter == nullptr ? "UTF-8" : converter->name;
    if (!name.starts_with("UTF-8") && !name.starts_with("UTF-16")) fail("its encoding is not UTF-8 or UTF-16");
  }

  void start(std::string_view name) {
    const auto* element = std::find_if(kElements.begin(), kElements.end(), [name](auto& e) { return e.name == name; });
    if (element == kElements.end()) return failHere("not an element of property lists");
    if (!fits(*element)) return failHere("<" + std::string(name) + "> does not belong here");
    if (element->valueOf == nullptr && open_.size() > maxDepth_) return failHere("it is nested too deeply");
    open_.push_back({element, {}, {}});
  }

  // Whether `element` may come next inside the innermost open element.
  bool fits(const Element& element) const {
    const bool isKey = element.name == "key";
    if (open_.empty()) return !isKey;
    const Open& parent = open_.back();
    if (parent.element->valueOf != nullptr || element.name == "plist") return false;
    if (parent.element->name == "dict") return isKey == (parent.children.size() % 2 == 0);
    return !isKey && (parent.element->name == "array" || parent.children.empty());
  }

  void characters(std::string_view text) {
    if (!fault_.empty() || open_.empty()) return;
    Open& innermost = open_.back();
    if (innermost.element->valueOf != nullptr) {
      innermost.text += text;
    } else if (!trim(text).empty()) {
      failHere("text outside of a value");
    }
  }

  void end() {
    if (!fault_.empty()) return;
    Open ended = std::move(open_.back());
    open_.pop_back();
    const std::string name(ended.element->name);
    const bool whole = name == "dict" ? ended.children.size() % 2 == 0 : name != "plist" || ended.children.size() == 1;
    if (!whole) return failHere("<" + name + "> lacks a value");
    Value value = valueOf(ended);
    if (value.isNil()) return failHere("not a valid <" + name + ">");
    if (open_.empty()) {
      root_ = std::move(value);
    } else {
      open_.back().children.push_back(std::move(value));
    }
  }

  static Value valueOf(Open& ended) {
    if (ended.element->valueOf != nullptr) return ended.element->valueOf(ended.text);
    if (ended.element->name == "array") return Value::array(std::move(ended.children));
    if (ended.element->name == "plist") return ended.children.front();
    Value::Dictionary entries;
    for (size_t i = 0; i < ended.children.size(); i += 2) {
      entries.emplace(std::move(ended.children[i]), std::move(ended.children[i + 1]));
    }
    return Value::dictionary(std::move(entries));
  }

  const size_t maxDepth_;
  xmlParserCtxtPtr context_ = nullptr;
  std::vector<Open> open_;
  Value root_;
  std::string fault_;
};

}  // namespace

Value read_xml_property_list(std::span<const uint8_t> bytes, size_t maxDepth, std::string* fault) {
  return XMLReader(maxDepth).read(bytes, fault);
}

}  // namespace orvane
