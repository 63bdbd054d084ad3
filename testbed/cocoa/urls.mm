// Core Foundation URLs: NSURL under CF's names, with CF's strictness about what a URL is.

#import <Foundation/Foundation.h>

#include "testbed/cocoa/encodings.h"
#include "testbed/cocoa/files.h"
#include "testbed/cocoa/marks.h"
#include "testbed/cocoa/observe.h"
#include "testbed/cocoa/text.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include <sys/stat.h>

namespace {

void needs(const void* given, const char* function) {
  if (!given) marks::die("%s: a null pointer, which crashes on Mac OS X", function);
}

bool is_alphanumeric(char byte) {
  return (byte >= '0' && byte <= '9') || ((byte | 0x20) >= 'a' && (byte | 0x20) <= 'z');
}

bool is_one_of(char byte, const char* set) { return byte && strchr(set, byte); }

int hex_digit(char byte) {
  if (byte >= '0' && byte <= '9') return byte - '0';
  char letter = byte | 0x20;
  return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

bool is_escape(std::string_view text, size_t at) {
  return at + 2 < text.size() && hex_digit(text[at + 1]) >= 0 && hex_digit(text[at + 2]) >= 0;
}

bool is_url(std::string_view text) {
  if (text.empty()) return false;
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '%'
            ? !is_escape(text, at)
            : !is_alphanumeric(text[at]) && !is_one_of(text[at], "-_.!~*'();/?:@&=+$,#[]"))
      return false;
  }
  return true;
}

std::string escaped(std::string_view text) {
  std::string made;
  for (char byte : text) {
    if (is_alphanumeric(byte) || is_one_of(byte, "-_.!~*'()/:@&=+$,")) {
      made += byte;
      continue;
    }
    char escape[4];
    snprintf(escape, sizeof escape, "%%%02X", static_cast<unsigned char>(byte));
    made += escape;
  }
  return made;
}

std::string unescaped(std::string_view text) {
  std::string made;
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '%' && is_escape(text, at)) {
      made += static_cast<char>(hex_digit(text[at + 1]) * 16 + hex_digit(text[at + 2]));
      at += 2;
    } else {
      made += text[at];
    }
  }
  return made;
}

// scheme://authority, path, and the rest from the first of ;?# on. Views into the text.
struct parts {
  std::string_view before, path, after;
  std::string_view scheme, authority; // both in `before`; empty when they are not there
  bool hierarchical;
};

parts split(std::string_view text) {
  parts made = {};
  size_t start = 0;
  size_t colon = text.find_first_of(":/?#");
  bool scheme = colon != std::string_view::npos && text[colon] == ':';
  if (scheme) {
    made.scheme = text.substr(0, colon);
    start = colon + 1;
  }
  if (text.substr(start, 2) == "//") {
    size_t authority = start + 2;
    start = std::min(text.find_first_of("/?#", authority), text.size());
    made.authority = text.substr(authority, start - authority);
  }
  size_t end = start;
  while (end < text.size() && !is_one_of(text[end], ";?#")) ++end;
  made.before = text.substr(0, start);
  made.path = text.substr(start, end - start);
  made.after = text.substr(end);
  made.hierarchical = !scheme || made.path.empty() || made.path[0] == '/';
  return made;
}

std::string text_of(NSURL* url) {
  const char* text = [[url absoluteString] UTF8String];
  return text ? text : "";
}

NSString* string_of(const std::string& text) {
  return [[NSString alloc] initWithBytes:text.data()
                                  length:text.size()
                                encoding:NSUTF8StringEncoding];
}

NSURL* url_of(const std::string& text) {
  return [[NSURL alloc] initWithString:[string_of(text) autorelease]];
}

// The folder of a path, ending in a slash; what CF makes of a path's last component being cut off.
std::string without_last(std::string_view path) {
  size_t end = path.find_last_not_of('/');
  if (end == std::string_view::npos) return path.empty() ? "" : "/../";
  size_t slash = path.find_last_of('/', end);
  return slash == std::string_view::npos ? "./" : std::string(path.substr(0, slash + 1));
}

std::string_view last_of(std::string_view path) {
  size_t end = path.find_last_not_of('/');
  if (end == std::string_view::npos) return path.empty() ? path : path.substr(0, 1);
  size_t slash = path.find_last_of('/', end);
  size_t start = slash == std::string_view::npos ? 0 : slash + 1;
  return path.substr(start, end + 1 - start);
}

bool is_nothing_or(std::string_view text, const char* word) {
  return text.empty() ||
         (text.size() == strlen(word) && !strncasecmp(text.data(), word, text.size()));
}

// The path that a file URL means; empty for every other URL. One without a scheme counts as a file.
std::string file_path(NSURL* url) {
  std::string text = text_of(url);
  parts all = split(text);
  bool file = is_nothing_or(all.scheme, "file") && is_nothing_or(all.authority, "localhost");
  return file && all.path.starts_with('/') ? unescaped(all.path) : "";
}

} // namespace

extern "C" {
#pragma GCC visibility push(default)

NSURL* CFURLCreateWithString(const void*, NSString* string, NSURL* base) {
  if (!string || observe::fails("CFURLCreateWithString")) return nil;
  return marks::leave([&]() -> NSURL* {
    auto text = encodings::encode(text::units_of(string), encodings::ascii);
    if (!text || !is_url(*text)) return nil;
    return [[NSURL alloc] initWithString:string relativeToURL:base];
  });
}

NSString* CFURLCopyFileSystemPath(NSURL* url, long style) {
  needs(url, "CFURLCopyFileSystemPath");
  if (style) marks::die("CFURLCopyFileSystemPath: only POSIX paths (0), not style %ld", style);
  if (observe::fails("CFURLCopyFileSystemPath")) return nil;
  return marks::leave([&]() -> NSString* {
    std::string text = text_of(url);
    parts all = split(text);
    if (!all.hierarchical) return nil;
    std::string path = unescaped(all.path);
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return string_of(path);
  });
}

NSURL* CFURLCreateFromFSRef(const void*, const FSRef* item) {
  if (observe::fails("CFURLCreateFromFSRef")) return nil;
  return marks::leave([&]() -> NSURL* {
    auto path = files_path_from_ref(*item);
    struct stat info;
    if (!path || lstat(path->c_str(), &info) != 0) return nil;
    bool slash = S_ISDIR(info.st_mode) && path->back() != '/';
    return url_of("file://" + escaped(*path) + (slash ? "/" : ""));
  });
}

unsigned char CFURLGetFSRef(NSURL* url, FSRef* item) {
  needs(url, "CFURLGetFSRef");
  if (observe::fails("CFURLGetFSRef")) return false;
  return marks::leave([&] { return files_ref_from_path(file_path(url), *item); });
}

NSURL* CFURLCreateCopyAppendingPathComponent(const void*, NSURL* url, NSString* component,
                                             unsigned char directory) {
  needs(url, "CFURLCreateCopyAppendingPathComponent");
  needs(component, "CFURLCreateCopyAppendingPathComponent");
  if (observe::fails("CFURLCreateCopyAppendingPathComponent")) return nil;
  return marks::leave([&]() -> NSURL* {
    std::string text = text_of(url);
    parts all = split(text);
    auto name = encodings::encode(text::units_of(component), encodings::utf8);
    if (!all.hierarchical || !name) return nil;
    std::string made(all.before);
    made += all.path;
    if (made.empty() || made.back() != '/') made += '/';
    made += escaped(*name);
    if (directory) made += '/';
    return url_of(made.append(all.after));
  });
}

NSURL* CFURLCreateCopyDeletingLastPathComponent(const void*, NSURL* url) {
  needs(url, "CFURLCreateCopyDeletingLastPathComponent");
  if (observe::fails("CFURLCreateCopyDeletingLastPathComponent")) return nil;
  return marks::leave([&]() -> NSURL* {
    std::string text = text_of(url);
    parts all = split(text);
    if (!all.hierarchical) return nil;
    return url_of(std::string(all.before) + without_last(all.path));
  });
}

NSString* CFURLCopyLastPathComponent(NSURL* url) {
  needs(url, "CFURLCopyLastPathComponent");
  if (observe::fails("CFURLCopyLastPathComponent")) return nil;
  return marks::leave([&]() -> NSString* {
    std::string text = text_of(url);
    parts all = split(text);
    return all.hierarchical ? string_of(unescaped(last_of(all.path))) : nil;
  });
}

#pragma GCC visibility pop
} // extern "C"
