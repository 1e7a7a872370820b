#include "internal/mc_wire.h"

#include <stdlib.h>
#include <string.h>

#include <stdint.h>

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <type_traits>

namespace velt {
namespace mc {
namespace internal {

namespace {

using AttributeList = google::protobuf::RepeatedPtrField<proto::KorAttribute>;

// In front of every response array; sized so that the array behind it is
// aligned for any type.
struct alignas(alignof(std::max_align_t)) ResponseHeader {
  uint32_t magic;
  uint32_t kind;
  uint32_t count;
  ResponseBlock* blocks;   // what the entries point to (query responses)
};
constexpr uint32_t kResponseMagic = 0x4d435253;   // "MCRS"

// Blocks start at 16 KiB and double up to 1 MiB; a larger piece gets a
// block of its own.
constexpr size_t kFirstBlockBytes = 16 * 1024;
constexpr size_t kLargestBlockBytes = 1024 * 1024;

void* allocResponses(ResponseKind kind, uint32_t count, size_t entrySize) {
  // calloc checks count * size for overflow.
  void* block = calloc(1, sizeof(ResponseHeader) + static_cast<size_t>(count) * entrySize);
  if (block == nullptr) return nullptr;
  ResponseHeader* h = static_cast<ResponseHeader*>(block);
  h->magic = kResponseMagic;
  h->kind = static_cast<uint32_t>(kind);
  h->count = count;
  return h + 1;
}

bool isRepresentable(uint32_t type) {
  switch (type) {
    case VX_INT32:
    case VX_UINT32:
    case VX_INT64:
    case VX_UINT64:
    case VX_CHAR_PTR:
    case VX_INT32_ARRAY:
    case VX_UINT32_ARRAY:
    case VX_INT64_ARRAY:
    case VX_UINT64_ARRAY:
    case VX_CHAR_PTR_ARRAY:
      return true;
    default:
      return false;
  }
}

bool checkText(std::string_view text, const char* what, std::string* why) {
  if (text.size() > kMaxString) {
    *why = std::string(what) + " of " + std::to_string(text.size()) + " bytes (at most " +
           std::to_string(kMaxString) + ")";
    return false;
  }
  // Views of the wire are read without memchr, memcpy or memcmp: a field
  // absent from the wire is an empty view whose data() is null, which those
  // must never get.
  if (text.find('\0') != std::string_view::npos) {
    *why = std::string(what) + " with a NUL byte";
    return false;
  }
  return true;
}

bool checkArrayLength(size_t n, std::string_view name, std::string* why) {
  if (n > kMaxArray) {
    *why = "attribute \"" + std::string(name.substr(0, 64)) + "\" is an array of " + std::to_string(n) +
           " elements (at most " + std::to_string(kMaxArray) + ")";
    return false;
  }
  return true;
}

// The checks below read an attribute (name(), value()) and a resource
// (handle(), class_name(), attributes()) the same way whether they are
// messages parsed by protobuf or read straight from the wire (WireResource
// below).

template <typename Name>
bool checkAttributeName(const Name& name, std::string* why) {
  if (name.empty()) {
    *why = "an attribute without a name";
    return false;
  }
  return checkText(name, "an attribute name", why);
}

// Checks the value v of the attribute called name; *cost grows by about
// the memory its conversion takes.
template <typename Value>
bool checkValue(std::string_view nameView, const Value& v, size_t* cost, std::string* why) {
  switch (v.type()) {
    case VX_INT32:
    case VX_UINT32:
    case VX_INT64:
    case VX_UINT64:
      if (v.type() == VX_INT32 ? v.int_value() >= INT32_MIN && v.int_value() <= INT32_MAX
                               : v.type() != VX_UINT32 || v.uint_value() <= UINT32_MAX) {
        return true;   // the usual case, without making the name's text
      }
      break;
    case VX_CHAR_PTR:
      if (!checkText(v.text(), "a string value", why)) return false;
      *cost += v.text().size() + 1;
      return true;
    default:
      break;
  }
  const std::string name(nameView);
  switch (v.type()) {
    case VX_INT32:
      if (v.int_value() < INT32_MIN || v.int_value() > INT32_MAX) {
        *why = "attribute \"" + name + "\" of type VX_INT32 holds " + std::to_string(v.int_value());
        return false;
      }
      return true;
    case VX_UINT32:
      if (v.uint_value() > UINT32_MAX) {
        *why = "attribute \"" + name + "\" of type VX_UINT32 holds " + std::to_string(v.uint_value());
        return false;
      }
      return true;
    case VX_INT64:
    case VX_UINT64:
      return true;
    case VX_CHAR_PTR:
      if (!checkText(v.text(), "a string value", why)) return false;
      *cost += v.text().size() + 1;
      return true;
    case VX_INT32_ARRAY:
      if (!checkArrayLength(static_cast<size_t>(v.int_array_size()), name, why)) return false;
      for (int64_t x : v.int_array()) {
        if (x < INT32_MIN || x > INT32_MAX) {
          *why = "attribute \"" + name + "\" of type VX_INT32_ARRAY holds " + std::to_string(x);
          return false;
        }
      }
      *cost += sizeof(vx_array_t) + static_cast<size_t>(v.int_array_size()) * sizeof(int64_t);
      return true;
    case VX_INT64_ARRAY:
      if (!checkArrayLength(static_cast<size_t>(v.int_array_size()), name, why)) return false;
      *cost += sizeof(vx_array_t) + static_cast<size_t>(v.int_array_size()) * sizeof(int64_t);
      return true;
    case VX_UINT32_ARRAY:
      if (!checkArrayLength(static_cast<size_t>(v.uint_array_size()), name, why)) return false;
      for (uint64_t x : v.uint_array()) {
        if (x > UINT32_MAX) {
          *why = "attribute \"" + name + "\" of type VX_UINT32_ARRAY holds " + std::to_string(x);
          return false;
        }
      }
      *cost += sizeof(vx_array_t) + static_cast<size_t>(v.uint_array_size()) * sizeof(uint64_t);
      return true;
    case VX_UINT64_ARRAY:
      if (!checkArrayLength(static_cast<size_t>(v.uint_array_size()), name, why)) return false;
      *cost += sizeof(vx_array_t) + static_cast<size_t>(v.uint_array_size()) * sizeof(uint64_t);
      return true;
    case VX_CHAR_PTR_ARRAY:
      if (!checkArrayLength(static_cast<size_t>(v.text_array_size()), name, why)) return false;
      for (const auto& s : v.text_array()) {
        if (!checkText(s, "a string array element", why)) return false;
        *cost += sizeof(char*) + s.size() + 1;
      }
      *cost += sizeof(vx_array_t);
      return true;
    default:
      // Not representable here: left out, so nothing to check.
      return true;
  }
}

// Checks one attribute; *cost grows by about the memory its conversion
// takes.
template <typename Attribute>
bool checkAttribute(const Attribute& a, size_t* cost, std::string* why) {
  if (!checkAttributeName(a.name(), why)) return false;
  *cost += sizeof(mc_attribute_t) + a.name().size() + 1;
  return checkValue(a.name(), a.value(), cost, why);
}

template <typename List>
bool checkAttributes(const List& list, size_t* cost, std::string* why) {
  if (static_cast<size_t>(list.size()) > kMaxAttributes) {
    *why = std::to_string(list.size()) + " attributes for one resource (at most " + std::to_string(kMaxAttributes) +
           ")";
    return false;
  }
  for (const auto& a : list) {
    if (!checkAttribute(a, cost, why)) return false;
  }
  return true;
}

bool checkHandle(std::string_view handle, std::string* why) {
  if (handle.empty()) {
    *why = "a resource without a handle";
    return false;
  }
  return checkText(handle, "a resource handle", why);
}

template <typename Resource>
bool checkResource(const Resource& r, size_t* cost, std::string* why) {
  return checkHandle(r.handle(), why) && checkText(r.class_name(), "a class name", why) &&
         checkAttributes(r.attributes(), cost, why);
}

// A value of a row, with the type its column gives it (the row's value
// leaves its own type 0).
template <typename Value>
class ColumnValue {
 public:
  ColumnValue(const Value& v, uint32_t type) : v_(v), type_(type) {}
  uint32_t type() const { return type_; }
  int64_t int_value() const { return v_.int_value(); }
  uint64_t uint_value() const { return v_.uint_value(); }
  decltype(auto) text() const { return v_.text(); }
  decltype(auto) int_array() const { return v_.int_array(); }
  decltype(auto) uint_array() const { return v_.uint_array(); }
  decltype(auto) text_array() const { return v_.text_array(); }
  int int_array_size() const { return v_.int_array_size(); }
  int uint_array_size() const { return v_.uint_array_size(); }
  int text_array_size() const { return v_.text_array_size(); }

 private:
  const Value& v_;
  uint32_t type_;
};

// A column of a page of rows as the checks and the conversion use it.
struct ColumnOfPage {
  std::string_view name;
  uint32_t type = 0;
};

template <typename ColumnList>
bool checkColumns(std::string_view className, const ColumnList& columns, std::vector<ColumnOfPage>* out,
                  std::string* why) {
  out->clear();
  if (!checkText(className, "a class name", why)) return false;
  if (static_cast<size_t>(columns.size()) > kMaxAttributes) {
    *why = std::to_string(columns.size()) + " columns for one page (at most " + std::to_string(kMaxAttributes) +
           ")";
    return false;
  }
  for (const auto& c : columns) {
    if (!checkAttributeName(c.name(), why)) return false;
    out->push_back(ColumnOfPage{c.name(), c.type()});
  }
  return true;
}

// Checks a row of a page whose columns are given; *cost as for attributes.
template <typename Row>
bool checkRow(const Row& r, const std::vector<ColumnOfPage>& columns, size_t* cost, std::string* why) {
  if (!checkHandle(r.handle(), why)) return false;
  if (static_cast<size_t>(r.values().size()) != columns.size()) {
    *why = "a row of " + std::to_string(r.values().size()) + " values in a page of " +
           std::to_string(columns.size()) + " columns";
    return false;
  }
  size_t k = 0;
  for (const auto& v : r.values()) {
    const ColumnOfPage& c = columns[k++];
    if (v.type() != 0 && v.type() != c.type) {
      *why = "a value of type " + std::to_string(v.type()) + " in column \"" +
             std::string(c.name.substr(0, 64)) + "\" of type " + std::to_string(c.type);
      return false;
    }
    *cost += sizeof(mc_attribute_t);
    if (!checkValue(c.name, ColumnValue<std::decay_t<decltype(v)>>(v, c.type), cost, why)) return false;
  }
  return true;
}

char* copyText(const std::string& text) {
  char* s = static_cast<char*>(malloc(text.size() + 1));
  if (s == nullptr) return nullptr;
  memcpy(s, text.data(), text.size());
  s[text.size()] = '\0';
  return s;
}

// Frees what a converted attribute owns; the attribute itself belongs to
// its array.
void freeAttributeContents(mc_attribute_t* a) {
  free(a->name);
  switch (a->type) {
    case VX_CHAR_PTR:
      free(a->value.string);
      break;
    case VX_INT32_ARRAY:
    case VX_UINT32_ARRAY:
    case VX_INT64_ARRAY:
    case VX_UINT64_ARRAY:
    case VX_CHAR_PTR_ARRAY: {
      vx_array_t* arr = a->value.array;
      if (arr == nullptr) break;
      if (a->type == VX_CHAR_PTR_ARRAY && arr->elements.strings != nullptr) {
        for (uint32_t i = 0; i < arr->count; ++i) free(arr->elements.strings[i]);
      }
      // Every member of the union is the same pointer.
      free(arr->elements.int64s);
      free(arr);
      break;
    }
    default:
      break;
  }
}

void freeAttributes(mc_attribute_t* attrs, uint32_t count) {
  if (attrs == nullptr) return;
  for (uint32_t i = 0; i < count; ++i) freeAttributeContents(&attrs[i]);
  free(attrs);
}

template <typename T, typename Src>
bool copyNumbers(const Src& src, T** out) {
  *out = nullptr;
  if (src.size() == 0) return true;
  T* dst = static_cast<T*>(calloc(static_cast<size_t>(src.size()), sizeof(T)));
  if (dst == nullptr) return false;
  for (int i = 0; i < src.size(); ++i) dst[i] = static_cast<T>(src.Get(i));
  *out = dst;
  return true;
}

// Sets a->value for the scalar types, strings through copy. Returns 1 when
// set, 0 when a copy failed (out of memory), -1 for an array type.
template <typename Value, typename Copy>
int setScalarValue(const Value& v, mc_attribute_t* a, Copy copy) {
  switch (v.type()) {
    case VX_INT32:
      a->value.int32 = static_cast<int32_t>(v.int_value());
      return 1;
    case VX_UINT32:
      a->value.uint32 = static_cast<uint32_t>(v.uint_value());
      return 1;
    case VX_INT64:
      a->value.int64 = v.int_value();
      return 1;
    case VX_UINT64:
      a->value.uint64 = v.uint_value();
      return 1;
    case VX_CHAR_PTR:
      a->value.string = copy(v.text());
      return a->value.string != nullptr ? 1 : 0;
    default:
      return -1;
  }
}

// Fills *a from a checked, representable attribute. On false (out of
// memory) *a owns whatever was allocated and is freed by its caller.
bool convertAttribute(const proto::KorAttribute& in, mc_attribute_t* a) {
  const proto::KorValue& v = in.value();
  a->type = static_cast<vx_data_type_t>(v.type());
  a->name = copyText(in.name());
  if (a->name == nullptr) return false;
  int scalar = setScalarValue(v, a, [](const auto& text) { return copyText(text); });
  if (scalar >= 0) return scalar == 1;
  vx_array_t* arr = static_cast<vx_array_t*>(calloc(1, sizeof(vx_array_t)));
  if (arr == nullptr) return false;
  a->value.array = arr;
  switch (v.type()) {
    case VX_INT32_ARRAY:
      arr->count = static_cast<uint32_t>(v.int_array_size());
      return copyNumbers(v.int_array(), &arr->elements.int32s);
    case VX_INT64_ARRAY:
      arr->count = static_cast<uint32_t>(v.int_array_size());
      return copyNumbers(v.int_array(), &arr->elements.int64s);
    case VX_UINT32_ARRAY:
      arr->count = static_cast<uint32_t>(v.uint_array_size());
      return copyNumbers(v.uint_array(), &arr->elements.uint32s);
    case VX_UINT64_ARRAY:
      arr->count = static_cast<uint32_t>(v.uint_array_size());
      return copyNumbers(v.uint_array(), &arr->elements.uint64s);
    case VX_CHAR_PTR_ARRAY: {
      size_t n = static_cast<size_t>(v.text_array_size());
      if (n == 0) return true;
      char** strings = static_cast<char**>(calloc(n, sizeof(char*)));
      if (strings == nullptr) return false;
      arr->elements.strings = strings;
      arr->count = static_cast<uint32_t>(n);
      for (size_t i = 0; i < n; ++i) {
        strings[i] = copyText(v.text_array(static_cast<int>(i)));
        if (strings[i] == nullptr) return false;
      }
      return true;
    }
    default:
      return false;   // not reached: the caller converts representable types only
  }
}

// Converts the representable attributes of a checked list. Returns false
// when out of memory, with nothing left allocated.
bool convertAttributes(const AttributeList& list, mc_attribute_t** out, uint32_t* count) {
  *out = nullptr;
  *count = 0;
  uint32_t n = 0;
  for (const proto::KorAttribute& a : list) {
    if (isRepresentable(a.value().type())) ++n;
  }
  if (n == 0) return true;
  mc_attribute_t* attrs = static_cast<mc_attribute_t*>(calloc(n, sizeof(mc_attribute_t)));
  if (attrs == nullptr) return false;
  uint32_t filled = 0;
  for (const proto::KorAttribute& a : list) {
    if (!isRepresentable(a.value().type())) continue;
    bool ok = convertAttribute(a, &attrs[filled]);
    ++filled;
    if (!ok) {
      freeAttributes(attrs, filled);
      return false;
    }
  }
  *out = attrs;
  *count = n;
  return true;
}

}  // namespace

// One block of a response's memory; the pieces follow the header.
struct alignas(alignof(std::max_align_t)) ResponseBlock {
  ResponseBlock* next;
  size_t size;   // bytes after the header
  size_t used;

  unsigned char* data() { return reinterpret_cast<unsigned char*>(this + 1); }

  static void freeChain(ResponseBlock* b) {
    while (b != nullptr) {
      ResponseBlock* next = b->next;
      free(b);
      b = next;
    }
  }
};

int codeOfAgentRc(int32_t rc) {
  switch (rc) {
    case kAgentOk:
      return MC_OK;
    case kAgentBadParameter:
      return MC_EINVAL;
    case kAgentNoMemory:
      return MC_ENOMEM;
    case kAgentPermissionDenied:
      return MC_EPERM;
    case kAgentUnknownGroup:
      return MC_ENOCLASS;
    case kAgentLimitExceeded:
      return MC_ELIMIT;
    case kAgentVersionMismatch:
    case kAgentNotSupported:
      return MC_ENOTSUP;
    default:
      return MC_EPROTO;
  }
}

const char* codeName(int code) {
  switch (code) {
    case MC_OK: return "MC_OK";
    case MC_ESESSION: return "MC_ESESSION";
    case MC_ENOAGENT: return "MC_ENOAGENT";
    case MC_ECONNLOST: return "MC_ECONNLOST";
    case MC_EINVAL: return "MC_EINVAL";
    case MC_ENOCLASS: return "MC_ENOCLASS";
    case MC_ENOATTR: return "MC_ENOATTR";
    case MC_EPERM: return "MC_EPERM";
    case MC_ENOMEM: return "MC_ENOMEM";
    case MC_ELIMIT: return "MC_ELIMIT";
    case MC_EPROTO: return "MC_EPROTO";
    case MC_ENOTSUP: return "MC_ENOTSUP";
    case MC_EBUSY: return "MC_EBUSY";
    case MC_ENOREG: return "MC_ENOREG";
    default: return "MC_E?";
  }
}

mc_query_rsp_t* allocQueryResponses(uint32_t count) {
  return static_cast<mc_query_rsp_t*>(allocResponses(ResponseKind::kQuery, count, sizeof(mc_query_rsp_t)));
}

mc_reg_rsp_t* allocRegResponse() {
  return static_cast<mc_reg_rsp_t*>(allocResponses(ResponseKind::kRegistration, 1, sizeof(mc_reg_rsp_t)));
}

void freeResponse(void* response) {
  if (response == nullptr) return;
  ResponseHeader* h = static_cast<ResponseHeader*>(response) - 1;
  if (h->magic != kResponseMagic) return;
  // Everything a query's entries point to lies in its blocks.
  ResponseBlock::freeChain(h->blocks);
  h->magic = 0;
  free(h);
}

int checkQueryAnswer(const proto::KorAnswer& answer, std::string* why) {
  const size_t n = static_cast<size_t>(answer.resources_size()) + static_cast<size_t>(answer.rows_size());
  if (n > kMaxResources) {
    *why = "an answer of " + std::to_string(n) + " resources (at most " + std::to_string(kMaxResources) + ")";
    return MC_EPROTO;
  }
  size_t cost = 0;
  for (const proto::KorResource& r : answer.resources()) {
    if (!checkResource(r, &cost, why)) return MC_EPROTO;
  }
  std::vector<ColumnOfPage> columns;
  if (!checkColumns(answer.class_name(), answer.columns(), &columns, why)) return MC_EPROTO;
  for (const proto::KorRow& r : answer.rows()) {
    if (!checkRow(r, columns, &cost, why)) return MC_EPROTO;
  }
  return MC_OK;
}

int convertQueryAnswer(const proto::KorAnswer& answer, const std::vector<std::string>& named,
                       mc_query_rsp_t** out, uint32_t* count) {
  *out = nullptr;
  *count = 0;
  QueryAnswerBuilder builder(named);
  std::string why;
  int rc = builder.addPage(answer, &why);
  if (rc != MC_OK) return rc == MC_EPROTO ? MC_EINVAL : rc;   // the caller checks the answer first
  return builder.finish(out, count);
}

// ---- a page of a query's answer read straight from the wire ----

namespace {

// What readPageBytes and its callback say of a page.
constexpr int kPageOk = 0;
constexpr int kPageNotCanonical = 1;   // not written the way agents write it
constexpr int kPageBreach = 2;         // breaks the contract (see the header)
constexpr int kPageNoMemory = 3;

// UTF-8 as protobuf requires of a string field, or stricter: no overlong
// forms, no surrogates, nothing past U+10FFFF.
bool isUtf8(std::string_view s) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(s.data());
  const unsigned char* end = p + s.size();
  while (p < end) {
    // Plain ASCII eight bytes at a time.
    if (end - p >= 8) {
      uint64_t chunk;
      memcpy(&chunk, p, 8);
      if ((chunk & 0x8080808080808080ull) == 0) {
        p += 8;
        continue;
      }
    }
    const unsigned char c = *p;
    if (c < 0x80) {
      ++p;
      continue;
    }
    size_t extra;
    uint32_t cp;
    if ((c & 0xE0) == 0xC0) {
      extra = 1;
      cp = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      extra = 2;
      cp = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      extra = 3;
      cp = c & 0x07;
    } else {
      return false;
    }
    if (static_cast<size_t>(end - p) <= extra) return false;
    for (size_t k = 1; k <= extra; ++k) {
      if ((p[k] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (p[k] & 0x3F);
    }
    static const uint32_t kMinByLength[4] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMinByLength[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    p += extra + 1;
  }
  return true;
}

// Reads protobuf's wire format as the agent writes it; anything else
// (varints longer than needed, strings that are not UTF-8, lengths past the
// end) reads as false.
class WireReader {
 public:
  explicit WireReader(std::string_view bytes) : p_(bytes.data()), end_(bytes.data() + bytes.size()) {}
  bool atEnd() const { return p_ == end_; }

  bool varint(uint64_t* value) {
    uint64_t v = 0;
    for (int shift = 0; shift < 64; shift += 7) {
      if (p_ == end_) return false;
      const uint8_t b = static_cast<uint8_t>(*p_++);
      if (shift == 63 && b > 1) return false;
      v |= static_cast<uint64_t>(b & 0x7F) << shift;
      if (b < 0x80) {
        if (b == 0 && shift > 0) return false;   // longer than needed
        *value = v;
        return true;
      }
    }
    return false;
  }
  // The next field's number (never 0) and wire type.
  bool tag(uint32_t* field, uint32_t* wireType) {
    uint64_t t;
    if (!varint(&t) || t > UINT32_MAX || (t >> 3) == 0) return false;
    *field = static_cast<uint32_t>(t >> 3);
    *wireType = static_cast<uint32_t>(t & 7);
    return true;
  }
  bool bytes(std::string_view* out) {
    uint64_t n;
    if (!varint(&n) || n > static_cast<uint64_t>(end_ - p_)) return false;
    *out = std::string_view(p_, static_cast<size_t>(n));
    p_ += n;
    return true;
  }
  bool text(std::string_view* out) { return bytes(out) && isUtf8(*out); }

 private:
  const char* p_;
  const char* end_;
};

constexpr uint32_t kVarint = 0;
constexpr uint32_t kLengthDelimited = 2;

// A KorValue, KorAttribute and KorResource as read from the wire: views
// into the frame's bytes, with the accessors of the messages that the
// checks and the conversion use.
class WireValue {
 public:
  uint32_t type() const { return type_; }
  int64_t int_value() const { return int_; }
  uint64_t uint_value() const { return uint_; }
  std::string_view text() const { return text_; }
  const std::vector<int64_t>& int_array() const { return ints_; }
  const std::vector<uint64_t>& uint_array() const { return uints_; }
  const std::vector<std::string_view>& text_array() const { return texts_; }
  int int_array_size() const { return static_cast<int>(ints_.size()); }
  int uint_array_size() const { return static_cast<int>(uints_.size()); }
  int text_array_size() const { return static_cast<int>(texts_.size()); }

  // Fields in ascending order, each once (text_array's elements side by
  // side), the arrays packed.
  bool read(std::string_view bytes) {
    type_ = 0;
    int_ = 0;
    uint_ = 0;
    text_ = std::string_view();
    ints_.clear();
    uints_.clear();
    texts_.clear();
    WireReader r(bytes);
    uint32_t last = 0;
    while (!r.atEnd()) {
      uint32_t field, wireType;
      if (!r.tag(&field, &wireType) || field < last || (field == last && field != 7)) return false;
      last = field;
      uint64_t x;
      std::string_view b;
      switch (field) {
        case 1:
          if (wireType != kVarint || !r.varint(&x) || x > UINT32_MAX) return false;
          type_ = static_cast<uint32_t>(x);
          break;
        case 2:
          if (wireType != kVarint || !r.varint(&x)) return false;
          int_ = static_cast<int64_t>(x);
          break;
        case 3:
          if (wireType != kVarint || !r.varint(&uint_)) return false;
          break;
        case 4:
          if (wireType != kLengthDelimited || !r.text(&text_)) return false;
          break;
        case 5:
        case 6: {
          if (wireType != kLengthDelimited || !r.bytes(&b)) return false;
          WireReader packed(b);
          while (!packed.atEnd()) {
            if (!packed.varint(&x)) return false;
            if (field == 5) {
              ints_.push_back(static_cast<int64_t>(x));
            } else {
              uints_.push_back(x);
            }
            if (ints_.size() > kMaxArray || uints_.size() > kMaxArray) return false;
          }
          break;
        }
        case 7:
          if (wireType != kLengthDelimited || !r.text(&b) || texts_.size() >= kMaxArray) return false;
          texts_.push_back(b);
          break;
        default:
          return false;
      }
    }
    return true;
  }

 private:
  uint32_t type_ = 0;
  int64_t int_ = 0;
  uint64_t uint_ = 0;
  std::string_view text_;
  std::vector<int64_t> ints_;
  std::vector<uint64_t> uints_;
  std::vector<std::string_view> texts_;
};

class WireAttribute {
 public:
  std::string_view name() const { return name_; }
  const WireValue& value() const { return value_; }

  bool read(std::string_view bytes) {
    name_ = std::string_view();
    bool hasValue = false;
    WireReader r(bytes);
    uint32_t last = 0;
    while (!r.atEnd()) {
      uint32_t field, wireType;
      if (!r.tag(&field, &wireType) || field <= last || wireType != kLengthDelimited) return false;
      last = field;
      std::string_view b;
      if (field == 1) {
        if (!r.text(&name_)) return false;
      } else if (field == 2) {
        if (!r.bytes(&b) || !value_.read(b)) return false;
        hasValue = true;
      } else {
        return false;
      }
    }
    // An attribute without a value has the default one.
    return hasValue || value_.read(std::string_view());
  }

 private:
  std::string_view name_;
  WireValue value_;
};

// Items read, as a range with a size.
template <typename Item>
class ReadItems {
 public:
  ReadItems(const Item* begin, size_t size) : begin_(begin), size_(size) {}
  const Item* begin() const { return begin_; }
  const Item* end() const { return begin_ + size_; }
  size_t size() const { return size_; }

 private:
  const Item* begin_;
  size_t size_;
};

// A message of text fields 1 .. kList - 1 and a repeated message field
// kList (at most kMaxAttributes Items), each text once and in field
// order. The items' storage is kept from one message to the next.
template <typename Item, uint32_t kList>
class WireTextsAndItems {
 public:
  bool read(std::string_view bytes) {
    for (std::string_view& t : texts_) t = std::string_view();
    used_ = 0;
    WireReader r(bytes);
    uint32_t last = 0;
    while (!r.atEnd()) {
      uint32_t field, wireType;
      if (!r.tag(&field, &wireType) || field < last || (field == last && field != kList) ||
          wireType != kLengthDelimited || field > kList) {
        return false;
      }
      last = field;
      if (field < kList) {
        if (!r.text(&texts_[field - 1])) return false;
        continue;
      }
      std::string_view b;
      if (used_ >= kMaxAttributes || !r.bytes(&b)) return false;
      if (used_ == items_.size()) items_.emplace_back();
      if (!items_[used_++].read(b)) return false;
    }
    return true;
  }

 protected:
  std::string_view text(uint32_t field) const { return texts_[field - 1]; }
  ReadItems<Item> items() const { return ReadItems<Item>(items_.data(), used_); }

 private:
  std::string_view texts_[kList - 1];
  std::vector<Item> items_;
  size_t used_ = 0;
};

// A KorResource: class_name (1), handle (2), attributes (3).
class WireResource : public WireTextsAndItems<WireAttribute, 3> {
 public:
  std::string_view class_name() const { return text(1); }
  std::string_view handle() const { return text(2); }
  ReadItems<WireAttribute> attributes() const { return items(); }
};

// A KorRow: handle (1), values (2).
class WireRow : public WireTextsAndItems<WireValue, 2> {
 public:
  std::string_view handle() const { return text(1); }
  ReadItems<WireValue> values() const { return items(); }
};

class WireColumn {
 public:
  std::string_view name() const { return name_; }
  uint32_t type() const { return type_; }

  bool read(std::string_view bytes) {
    WireReader r(bytes);
    uint32_t last = 0;
    while (!r.atEnd()) {
      uint32_t field, wireType;
      if (!r.tag(&field, &wireType) || field <= last) return false;
      last = field;
      uint64_t x;
      if (field == 1 && wireType == kLengthDelimited) {
        if (!r.text(&name_)) return false;
      } else if (field == 2 && wireType == kVarint) {
        if (!r.varint(&x) || x > UINT32_MAX) return false;
        type_ = static_cast<uint32_t>(x);
      } else {
        return false;
      }
    }
    return true;
  }

 private:
  std::string_view name_;
  uint32_t type_ = 0;
};

// Reads frame (an AgentFrame of version 1 with a Reply to request id, rc
// 0), giving what its answer holds to page (each of its calls answers
// kPageOk or what is wrong) and filling *header. kPageOk, or the first
// problem. page has
//   resource(const WireResource&)   for each resource,
//   columns(std::string_view className, const std::vector<WireColumn>&)
//                                   once, before the first row (or at the
//                                   end when there is none),
//   row(const WireRow&)             for each row.
template <typename Page>
int readPageBytes(const std::string& frame, uint64_t id, QueryAnswerBuilder::PageHeader* header,
                  Page& page) {
  WireReader top(frame);
  uint32_t field, wireType;
  uint64_t x;
  std::string_view reply;
  if (!top.tag(&field, &wireType) || field != 1 || wireType != kVarint || !top.varint(&x) ||
      x != proto::WIRE_VERSION_1) {
    return kPageNotCanonical;
  }
  if (!top.tag(&field, &wireType) || field != 3 || wireType != kLengthDelimited || !top.bytes(&reply) ||
      !top.atEnd()) {
    return kPageNotCanonical;
  }
  // Reply: id (1), text (3), kor (5); rc (2) is 0 and so not written.
  WireReader r(reply);
  uint32_t last = 0;
  bool hasId = false;
  std::string_view text, kor;
  while (!r.atEnd()) {
    if (!r.tag(&field, &wireType) || field <= last) return kPageNotCanonical;
    last = field;
    if (field == 1 && wireType == kVarint) {
      if (!r.varint(&x) || x != id) return kPageNotCanonical;
      hasId = true;
    } else if (field == 3 && wireType == kLengthDelimited) {
      if (!r.text(&text)) return kPageNotCanonical;
    } else if (field == 5 && wireType == kLengthDelimited) {
      if (!r.bytes(&kor)) return kPageNotCanonical;
    } else {
      return kPageNotCanonical;
    }
  }
  if (!hasId) return kPageNotCanonical;
  header->text.assign(text.data(), text.size());
  header->more = false;
  // KorAnswer: the resources (1), registration (2), more (3), and for rows
  // class_name (4), columns (5), rows (6).
  WireReader k(kor);
  last = 0;
  WireResource resource;
  WireRow row;
  std::string_view className;
  std::vector<WireColumn> columns;
  bool columnsGiven = false;
  while (!k.atEnd()) {
    if (!k.tag(&field, &wireType) || field < last || (field == last && field != 1 && field != 5 && field != 6)) {
      return kPageNotCanonical;
    }
    last = field;
    std::string_view b;
    int rc = kPageOk;
    if (field == 1 && wireType == kLengthDelimited) {
      if (!k.bytes(&b) || !resource.read(b)) return kPageNotCanonical;
      rc = page.resource(resource);
    } else if (field == 2 && wireType == kVarint) {
      if (!k.varint(&x)) return kPageNotCanonical;
    } else if (field == 3 && wireType == kVarint) {
      if (!k.varint(&x) || x > 1) return kPageNotCanonical;
      header->more = x == 1;
    } else if (field == 4 && wireType == kLengthDelimited) {
      if (!k.text(&className)) return kPageNotCanonical;
    } else if (field == 5 && wireType == kLengthDelimited) {
      if (columns.size() >= kMaxAttributes) return kPageNotCanonical;   // the general path refuses it
      columns.emplace_back();
      if (!k.bytes(&b) || !columns.back().read(b)) return kPageNotCanonical;
    } else if (field == 6 && wireType == kLengthDelimited) {
      if (!k.bytes(&b) || !row.read(b)) return kPageNotCanonical;
      if (!columnsGiven) {
        columnsGiven = true;
        rc = page.columns(className, columns);
      }
      if (rc == kPageOk) rc = page.row(row);
    } else {
      return kPageNotCanonical;
    }
    if (rc != kPageOk) return rc;
  }
  if (!columnsGiven) return page.columns(className, columns);
  return kPageOk;
}

}  // namespace

// ---- QueryAnswerBuilder ----

QueryAnswerBuilder::QueryAnswerBuilder(const std::vector<std::string>& named)
    : wanted_(named), nextBlockBytes_(kFirstBlockBytes) {
  // The names asked for, sorted and unique, so that each resource is
  // checked with a bit per name (at most kMaxAttributes of them; the
  // callers check that first).
  std::sort(wanted_.begin(), wanted_.end());
  wanted_.erase(std::unique(wanted_.begin(), wanted_.end()), wanted_.end());
  if (wanted_.size() > kMaxAttributes) wanted_.resize(kMaxAttributes);
  allWanted_ = wanted_.size() == 64 ? ~0ull : (1ull << wanted_.size()) - 1;
}

QueryAnswerBuilder::~QueryAnswerBuilder() { ResponseBlock::freeChain(blocks_); }

void* QueryAnswerBuilder::allocate(size_t bytes, size_t align) {
  ResponseBlock* b = blocks_;
  if (b != nullptr) {
    size_t at = (b->used + align - 1) & ~(align - 1);
    if (at <= b->size && bytes <= b->size - at) {
      b->used = at + bytes;
      return b->data() + at;
    }
  }
  size_t size = std::max(bytes, nextBlockBytes_);
  if (size > SIZE_MAX - sizeof(ResponseBlock)) return nullptr;
  ResponseBlock* fresh = static_cast<ResponseBlock*>(malloc(sizeof(ResponseBlock) + size));
  if (fresh == nullptr) return nullptr;
  fresh->size = size;
  fresh->used = bytes;
  if (bytes > nextBlockBytes_ && b != nullptr) {
    // A piece of its own: the block being filled stays first.
    fresh->next = b->next;
    b->next = fresh;
  } else {
    fresh->next = b;
    blocks_ = fresh;
    nextBlockBytes_ = std::min(nextBlockBytes_ * 2, kLargestBlockBytes);
  }
  return fresh->data();
}

char* QueryAnswerBuilder::copyText(std::string_view text) {
  char* s = static_cast<char*>(allocate(text.size() + 1, 1));
  if (s == nullptr) return nullptr;
  text.copy(s, text.size());   // not memcpy: see checkText
  s[text.size()] = '\0';
  return s;
}

const char* QueryAnswerBuilder::nameOf(std::string_view name, size_t place, uint64_t* bit) {
  if (place >= seen_.size()) seen_.resize(place + 1);
  SeenName& last = seen_[place];
  if (last.text != nullptr && std::string_view(last.text, last.size) == name) {
    *bit = last.bit;
    return last.text;
  }
  const char* text = copyText(name);
  if (text == nullptr) return nullptr;
  auto it = std::lower_bound(wanted_.begin(), wanted_.end(), name,
                             [](const std::string& a, std::string_view b) { return std::string_view(a) < b; });
  last.text = text;
  last.size = name.size();
  last.bit = it != wanted_.end() && *it == name ? 1ull << (it - wanted_.begin()) : 0;
  *bit = last.bit;
  return text;
}

template <typename Attribute>
bool QueryAnswerBuilder::convertAttribute(const Attribute& in, const char* name, mc_attribute_t* a) {
  const auto& v = in.value();
  a->name = const_cast<char*>(name);
  a->type = static_cast<vx_data_type_t>(v.type());
  int scalar = setScalarValue(v, a, [this](const auto& text) { return copyText(text); });
  if (scalar >= 0) return scalar == 1;
  vx_array_t* arr = static_cast<vx_array_t*>(allocate(sizeof(vx_array_t), alignof(vx_array_t)));
  if (arr == nullptr) return false;
  memset(arr, 0, sizeof *arr);
  a->value.array = arr;
  auto numbers = [this, arr](const auto& src, auto** dst) {
    using T = std::remove_pointer_t<std::remove_reference_t<decltype(*dst)>>;
    const size_t n = static_cast<size_t>(src.size());
    arr->count = static_cast<uint32_t>(n);
    *dst = nullptr;
    if (n == 0) return true;
    T* out = static_cast<T*>(allocate(n * sizeof(T), alignof(T)));
    if (out == nullptr) return false;
    size_t i = 0;
    for (auto x : src) out[i++] = static_cast<T>(x);
    *dst = out;
    return true;
  };
  switch (v.type()) {
    case VX_INT32_ARRAY:
      return numbers(v.int_array(), &arr->elements.int32s);
    case VX_INT64_ARRAY:
      return numbers(v.int_array(), &arr->elements.int64s);
    case VX_UINT32_ARRAY:
      return numbers(v.uint_array(), &arr->elements.uint32s);
    case VX_UINT64_ARRAY:
      return numbers(v.uint_array(), &arr->elements.uint64s);
    case VX_CHAR_PTR_ARRAY: {
      size_t n = static_cast<size_t>(v.text_array_size());
      if (n == 0) return true;
      char** strings = static_cast<char**>(allocate(n * sizeof(char*), alignof(char*)));
      if (strings == nullptr) return false;
      arr->elements.strings = strings;
      arr->count = static_cast<uint32_t>(n);
      size_t i = 0;
      for (const auto& text : v.text_array()) {
        strings[i] = copyText(text);
        if (strings[i++] == nullptr) return false;
      }
      return true;
    }
    default:
      return false;   // not reached: only representable types are converted
  }
}

template <typename Resource>
bool QueryAnswerBuilder::addResource(const Resource& r) {
  mc_query_rsp_t e{};
  e.rsrc_handle = copyText(r.handle());
  if (e.rsrc_handle == nullptr) return false;
  uint32_t representable = 0;
  for (const auto& a : r.attributes()) representable += isRepresentable(a.value().type()) ? 1 : 0;
  if (representable > 0) {
    e.attrs = static_cast<mc_attribute_t*>(allocate(representable * sizeof(mc_attribute_t), alignof(mc_attribute_t)));
    if (e.attrs == nullptr) return false;
  }
  uint64_t seen = 0;
  size_t place = 0;
  for (const auto& a : r.attributes()) {
    uint64_t bit = 0;
    const char* name = nameOf(a.name(), place++, &bit);
    if (name == nullptr) return false;
    seen |= bit;
    if (!isRepresentable(a.value().type())) continue;
    if (!convertAttribute(a, name, &e.attrs[e.attr_count++])) return false;
  }
  e.mc_errnum = seen == allWanted_ ? MC_OK : MC_ENOATTR;
  entries_.push_back(e);
  return true;
}

template <typename ColumnList>
bool QueryAnswerBuilder::takeColumns(const ColumnList& columns) {
  columns_.clear();
  columnsSeen_ = 0;
  representableColumns_ = 0;
  size_t place = 0;
  for (const auto& c : columns) {
    uint64_t bit = 0;
    const char* name = nameOf(c.name(), place++, &bit);
    if (name == nullptr) return false;
    columnsSeen_ |= bit;
    if (isRepresentable(c.type())) ++representableColumns_;
    columns_.push_back(PageColumn{name, c.type()});
  }
  return true;
}

namespace {

// A row's value as convertAttribute reads an attribute.
template <typename Value>
struct RowAttribute {
  ColumnValue<Value> v;
  const ColumnValue<Value>& value() const { return v; }
};

}  // namespace

template <typename Row>
bool QueryAnswerBuilder::addRow(const Row& r) {
  mc_query_rsp_t e{};
  e.rsrc_handle = copyText(r.handle());
  if (e.rsrc_handle == nullptr) return false;
  if (representableColumns_ > 0) {
    e.attrs = static_cast<mc_attribute_t*>(
        allocate(representableColumns_ * sizeof(mc_attribute_t), alignof(mc_attribute_t)));
    if (e.attrs == nullptr) return false;
  }
  size_t k = 0;
  for (const auto& v : r.values()) {
    const PageColumn& c = columns_[k++];
    if (!isRepresentable(c.type)) continue;
    RowAttribute<std::decay_t<decltype(v)>> a{ColumnValue<std::decay_t<decltype(v)>>(v, c.type)};
    if (!convertAttribute(a, c.name, &e.attrs[e.attr_count++])) return false;
  }
  e.mc_errnum = columnsSeen_ == allWanted_ ? MC_OK : MC_ENOATTR;
  entries_.push_back(e);
  return true;
}

int QueryAnswerBuilder::addPage(const proto::KorAnswer& page, std::string* why) {
  const size_t n = static_cast<size_t>(page.resources_size()) + static_cast<size_t>(page.rows_size());
  if (n > kMaxResources - std::min(kMaxResources, entries_.size())) {
    *why = "an answer of " + std::to_string(entries_.size() + n) + " resources (at most " +
           std::to_string(kMaxResources) + ")";
    return MC_EPROTO;
  }
  int rc = checkQueryAnswer(page, why);
  if (rc != MC_OK) return rc;
  entries_.reserve(entries_.size() + n);
  for (const proto::KorResource& r : page.resources()) {
    if (!addResource(r)) return MC_ENOMEM;
  }
  if (!takeColumns(page.columns())) return MC_ENOMEM;
  for (const proto::KorRow& r : page.rows()) {
    if (!addRow(r)) return MC_ENOMEM;
  }
  return MC_OK;
}

QueryAnswerBuilder::PageRead QueryAnswerBuilder::readPage(const std::string& frame, uint64_t id,
                                                          PageHeader* header) {
  const size_t before = entries_.size();
  // Checks and adds what the page holds.
  struct Page {
    QueryAnswerBuilder* builder;
    std::vector<ColumnOfPage> columnsOfPage;
    std::string why;

    int resource(const WireResource& r) {
      if (builder->entries_.size() >= kMaxResources) return kPageBreach;
      size_t cost = 0;
      if (!checkResource(r, &cost, &why)) return kPageBreach;
      return builder->addResource(r) ? kPageOk : kPageNoMemory;
    }
    int columns(std::string_view className, const std::vector<WireColumn>& list) {
      if (!checkColumns(className, list, &columnsOfPage, &why)) return kPageBreach;
      return builder->takeColumns(list) ? kPageOk : kPageNoMemory;
    }
    int row(const WireRow& r) {
      if (builder->entries_.size() >= kMaxResources) return kPageBreach;
      size_t cost = 0;
      if (!checkRow(r, columnsOfPage, &cost, &why)) return kPageBreach;
      return builder->addRow(r) ? kPageOk : kPageNoMemory;
    }
  };
  Page page{this, {}, {}};
  int rc = readPageBytes(frame, id, header, page);
  if (rc == kPageOk) return PageRead::kRead;
  // What this page added goes (its memory stays in the blocks until the
  // response is freed).
  entries_.resize(before);
  return rc == kPageNoMemory ? PageRead::kNoMemory : PageRead::kNotRead;
}

int QueryAnswerBuilder::finish(mc_query_rsp_t** out, uint32_t* count) {
  *out = nullptr;
  *count = 0;
  if (entries_.empty()) return MC_OK;
  mc_query_rsp_t* array = allocQueryResponses(static_cast<uint32_t>(entries_.size()));
  if (array == nullptr) return MC_ENOMEM;
  memcpy(array, entries_.data(), entries_.size() * sizeof(mc_query_rsp_t));
  (reinterpret_cast<ResponseHeader*>(array) - 1)->blocks = blocks_;
  blocks_ = nullptr;
  *out = array;
  *count = static_cast<uint32_t>(entries_.size());
  entries_.clear();
  seen_.clear();
  columns_.clear();
  return MC_OK;
}

int checkEvent(const proto::KorEvent& event, size_t* cost, std::string* why) {
  size_t c = sizeof(proto::KorEvent) + sizeof(mc_event_t);
  const proto::KorResource& r = event.resource();
  if (!checkText(event.class_name(), "a class name", why) || !checkText(event.event(), "an event name", why) ||
      !checkHandle(r.handle(), why) || !checkText(r.class_name(), "a class name", why) ||
      !checkAttributes(r.attributes(), &c, why)) {
    *why = "an event for registration " + std::to_string(event.registration()) + " with " + *why;
    return MC_EPROTO;
  }
  c += event.class_name().size() + event.event().size() + r.handle().size() + r.class_name().size();
  *cost = c;
  return MC_OK;
}

EventView::~EventView() { freeAttributes(attrs_, attrCount_); }

void EventView::buildClassEvent(const proto::KorEvent& event, mc_reg_id_t regId, const std::string& className,
                                const std::string& eventName) {
  classEvent_ = mc_class_event_t{};
  classEvent_.mc_errnum = MC_OK;
  classEvent_.reg_id = regId;
  classEvent_.class_name = event.class_name().empty() ? className.c_str() : event.class_name().c_str();
  classEvent_.event_name = event.event().empty() ? eventName.c_str() : event.event().c_str();
  classEvent_.rsrc_handle = event.resource().handle().c_str();
  classEvent_.sequence = event.sequence();
}

int EventView::buildResourceEvent(const proto::KorEvent& event, mc_reg_id_t regId, const std::string& className) {
  freeAttributes(attrs_, attrCount_);
  attrs_ = nullptr;
  attrCount_ = 0;
  if (!convertAttributes(event.resource().attributes(), &attrs_, &attrCount_)) return MC_ENOMEM;
  resourceEvent_ = mc_event_t{};
  resourceEvent_.mc_errnum = MC_OK;
  resourceEvent_.reg_id = regId;
  resourceEvent_.class_name = event.class_name().empty() ? className.c_str() : event.class_name().c_str();
  resourceEvent_.rsrc_handle = event.resource().handle().c_str();
  resourceEvent_.mc_event_flags = event.flags() & (MC_EVENT_UNASSIGN | MC_EVENT_UNASSIGN_UNDEF);
  resourceEvent_.attrs = attrs_;
  resourceEvent_.attr_count = attrCount_;
  resourceEvent_.sequence = event.sequence();
  return MC_OK;
}

namespace {

// The request id of a frame that is an AgentFrame of version 1 holding a
// Reply whose first field is its id.
bool peekReplyId(const std::string& frame, uint64_t* id) {
  WireReader top(frame);
  uint32_t field, wireType;
  uint64_t version;
  std::string_view reply;
  if (!top.tag(&field, &wireType) || field != 1 || wireType != kVarint || !top.varint(&version) ||
      !top.tag(&field, &wireType) || field != 3 || wireType != kLengthDelimited || !top.bytes(&reply)) {
    return false;
  }
  WireReader r(reply);
  return r.tag(&field, &wireType) && field == 1 && wireType == kVarint && r.varint(id);
}

bool sameText(const char* a, const char* b) { return (a == nullptr) == (b == nullptr) && (a == nullptr || !strcmp(a, b)); }

bool sameAttribute(const mc_attribute_t& a, const mc_attribute_t& b) {
  if (!sameText(a.name, b.name) || a.type != b.type) return false;
  switch (a.type) {
    case VX_INT32:
      return a.value.int32 == b.value.int32;
    case VX_UINT32:
      return a.value.uint32 == b.value.uint32;
    case VX_INT64:
      return a.value.int64 == b.value.int64;
    case VX_UINT64:
      return a.value.uint64 == b.value.uint64;
    case VX_CHAR_PTR:
      return sameText(a.value.string, b.value.string);
    default:
      break;
  }
  const vx_array_t& x = *a.value.array;
  const vx_array_t& y = *b.value.array;
  if (x.count != y.count) return false;
  for (uint32_t i = 0; i < x.count; ++i) {
    switch (a.type) {
      case VX_INT32_ARRAY:
        if (x.elements.int32s[i] != y.elements.int32s[i]) return false;
        break;
      case VX_UINT32_ARRAY:
        if (x.elements.uint32s[i] != y.elements.uint32s[i]) return false;
        break;
      case VX_INT64_ARRAY:
        if (x.elements.int64s[i] != y.elements.int64s[i]) return false;
        break;
      case VX_UINT64_ARRAY:
        if (x.elements.uint64s[i] != y.elements.uint64s[i]) return false;
        break;
      default:
        if (!sameText(x.elements.strings[i], y.elements.strings[i])) return false;
        break;
    }
  }
  return true;
}

bool sameEntries(const mc_query_rsp_t* a, uint32_t na, const mc_query_rsp_t* b, uint32_t nb) {
  if (na != nb) return false;
  for (uint32_t i = 0; i < na; ++i) {
    if (!sameText(a[i].rsrc_handle, b[i].rsrc_handle) || a[i].mc_errnum != b[i].mc_errnum ||
        a[i].attr_count != b[i].attr_count) {
      return false;
    }
    for (uint32_t k = 0; k < a[i].attr_count; ++k) {
      if (!sameAttribute(a[i].attrs[k], b[i].attrs[k])) return false;
    }
  }
  return true;
}

}  // namespace

int convertAgentFrameForTesting(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  proto::AgentFrame f;
  const bool parsed = size <= INT32_MAX && f.ParseFromString(bytes);
  // Ask for the first resource's first attribute and one nobody has, so
  // that both outcomes of the attribute check run.
  std::vector<std::string> named;
  if (parsed && f.reply().kor().resources_size() > 0 && f.reply().kor().resources(0).attributes_size() > 0) {
    named.push_back(f.reply().kor().resources(0).attributes(0).name());
  } else if (parsed && f.reply().kor().columns_size() > 0) {
    named.push_back(f.reply().kor().columns(0).name());
  }
  named.push_back("NoSuchAttribute");
  std::string why;
  // A page read straight from its bytes must be what protobuf and the
  // checks make of it; otherwise the process ends here, for the fuzz
  // target to report.
  uint64_t id = 0;
  if (peekReplyId(bytes, &id)) {
    QueryAnswerBuilder direct(named);
    QueryAnswerBuilder::PageHeader header;
    if (direct.readPage(bytes, id, &header) == QueryAnswerBuilder::PageRead::kRead) {
      QueryAnswerBuilder general(named);
      bool same = parsed && f.body_case() == proto::AgentFrame::kReply && f.reply().rc() == kAgentOk &&
                  header.more == f.reply().kor().more() && header.text == f.reply().text() &&
                  general.addPage(f.reply().kor(), &why) == MC_OK;
      mc_query_rsp_t* a = nullptr;
      mc_query_rsp_t* b = nullptr;
      uint32_t na = 0, nb = 0;
      if (same) same = direct.finish(&a, &na) == MC_OK && general.finish(&b, &nb) == MC_OK && sameEntries(a, na, b, nb);
      freeResponse(a);
      freeResponse(b);
      if (!same) abort();
    }
  }
  if (!parsed) return MC_EPROTO;
  switch (f.body_case()) {
    case proto::AgentFrame::kReply: {
      const proto::Reply& reply = f.reply();
      if (reply.rc() != kAgentOk) return codeOfAgentRc(reply.rc());
      int rc = checkQueryAnswer(reply.kor(), &why);
      if (rc != MC_OK) return rc;
      mc_query_rsp_t* entries = nullptr;
      uint32_t count = 0;
      rc = convertQueryAnswer(reply.kor(), named, &entries, &count);
      freeResponse(entries);
      return rc;
    }
    case proto::AgentFrame::kKorEvent: {
      size_t cost = 0;
      int rc = checkEvent(f.kor_event(), &cost, &why);
      if (rc != MC_OK) return rc;
      const std::string className = "Zel.PeerNode";
      const std::string eventName = "ResourceDefined";
      EventView classView;
      classView.buildClassEvent(f.kor_event(), 1, className, eventName);
      EventView resourceView;
      return resourceView.buildResourceEvent(f.kor_event(), 1, className);
    }
    default:
      return MC_OK;
  }
}

}  // namespace internal
}  // namespace mc
}  // namespace velt
