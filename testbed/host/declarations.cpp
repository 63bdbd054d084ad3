// Reads declarations of the host's language, such as
// "compareVersion(VersionA as string, VersionB as string) as integer".
#include "internal.h"

#include <cctype>
#include <strings.h>

namespace host {

namespace {

struct TypeName {
  const char* name;
  Type type;
};
constexpr TypeName typeNames[] = {
    {"boolean", Type::boolean}, {"integer", Type::int32},   {"int32", Type::int32},
    {"uint32", Type::uint32},   {"uinteger", Type::uint32}, {"int64", Type::int64},
    {"uint64", Type::uint64},   {"single", Type::single},   {"double", Type::real},
    {"string", Type::string},   {"variant", Type::variant},
};

class Reader {
public:
  explicit Reader(std::string_view text) : rest_(text) {}

  bool take(char c) {
    skipBlanks();
    if (rest_.empty() || rest_.front() != c) return false;
    rest_.remove_prefix(1);
    return true;
  }
  bool takeWord(const char* wanted) {
    std::string_view before = rest_;
    if (sameName(word(), wanted)) return true;
    rest_ = before;
    return false;
  }
  std::string_view word() {
    skipBlanks();
    size_t length = 0;
    while (length < rest_.size() &&
           (isalnum(static_cast<unsigned char>(rest_[length])) || rest_[length] == '_'))
      ++length;
    std::string_view result = rest_.substr(0, length);
    rest_.remove_prefix(length);
    return result;
  }
  bool atEnd() {
    skipBlanks();
    return rest_.empty();
  }
  // "as TYPE" or "as TYPE()"; false when there is no type where one belongs.
  bool type(Parameter& parameter) {
    if (!takeWord("as")) return false;
    parameter.typeName = word();
    if (parameter.typeName.empty()) return false;
    if (take('(')) {
      if (!take(')')) return false;
      parameter.isArray = true;
    }
    parameter.type = Type::object;
    if (!parameter.isArray)
      for (const TypeName& each : typeNames)
        if (sameName(each.name, parameter.typeName)) parameter.type = each.type;
    return true;
  }

private:
  void skipBlanks() {
    while (!rest_.empty() && isspace(static_cast<unsigned char>(rest_.front())))
      rest_.remove_prefix(1);
  }
  std::string_view rest_;
};

} // namespace

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::optional<Declaration> parseDeclaration(std::string_view text) {
  Reader reader(text);
  Declaration declaration;
  declaration.text = text;
  declaration.name = reader.word();
  if (declaration.name.empty()) return {};
  if (reader.take('(') && !reader.take(')')) {
    do {
      Parameter parameter;
      reader.takeWord("assigns");
      parameter.name = reader.word();
      bool arrayByName = reader.take('(');
      if (arrayByName && !reader.take(')')) return {};
      if (parameter.name.empty() || !reader.type(parameter)) return {};
      if (arrayByName) parameter.isArray = true, parameter.type = Type::object;
      declaration.parameters.push_back(parameter);
    } while (reader.take(','));
    if (!reader.take(')')) return {};
  }
  if (!reader.atEnd() && !reader.type(declaration.result)) return {};
  if (!reader.atEnd()) return {};
  return declaration;
}

} // namespace host
