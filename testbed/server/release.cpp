#include "release.h"

#include <archive.h>
#include <archive_entry.h>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <stdexcept>
#include <thread>

namespace testbed {

namespace {

// Domain parameters are no secret, and making them takes seconds.
constexpr char kParameters[] = R"(-----BEGIN DSA PARAMETERS-----
MIIBHgKBgQDoGOOSO6FWEJYCRJWwz/bBmYkSrVjo/84vFbi8t0rbEUVW1TfJb55o
ClrJxrUUz4ij6QZoCJ4T7/isjYTVPitF2mR0jH85YvmH6wQIZY2PkRs5ScNfQWVD
ayA1m1hRD7PmCd7zZ0VGGxRMdTBaUaDqbiH6+yaik5f9vRCfZnca6QIVALMJkirr
Mu//Eg2gSWrcA8J/nzKjAoGAIKQKjxLnR5ogYm4jMV3NZ33FI5qXfCuIk2RVhlYh
jTMS674wPT0o0h0y3P9K8VFt/rD1wu9QyiyNfEb6IOzb3INb8+R+iWxj0oa5AjSl
7jpkyHobzWkRCgmgfJFAPJv06KdaAQUVuL6NhTddZ+m1dqfCpQYTLWy1DUM2b1VZ
btE=
-----END DSA PARAMETERS-----
)";

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error("testbed: " + what); }

template <class T, void (*Free)(T*)> struct Freeing {
  void operator()(T* value) const { Free(value); }
};
using Key = std::unique_ptr<EVP_PKEY, Freeing<EVP_PKEY, EVP_PKEY_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Freeing<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, Freeing<EVP_MD_CTX, EVP_MD_CTX_free>>;
using Bio = std::unique_ptr<BIO, Freeing<BIO, BIO_free_all>>;

Bio reader(std::string_view text) {
  return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

template <class Write> std::string written(Write write) {
  Bio bio(BIO_new(BIO_s_mem()));
  if (!bio || write(bio.get()) != 1) fail("a key cannot be written as PEM");
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

std::string xml(const std::string& text) {
  std::string result;
  for (const char c : text) switch (c) {
    case '&':
      result += "&amp;";
      break;
    case '<':
      result += "&lt;";
      break;
    case '>':
      result += "&gt;";
      break;
    case '"':
      result += "&quot;";
      break;
    default:
      result += c;
    }
  return result;
}

std::string info_plist(const Application& application) {
  std::map<std::string, std::string> info = application.info;
  info["CFBundleIdentifier"] = application.identifier;
  info["CFBundleName"] = application.name;
  info["CFBundleExecutable"] = application.name;
  info["CFBundleVersion"] = application.version;
  if (!application.short_version.empty())
    info["CFBundleShortVersionString"] = application.short_version;
  std::string text =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n";
  for (const auto& [key, value] : info)
    text += "  <key>" + xml(key) + "</key>\n  <string>" + xml(value) + "</string>\n";
  return text + "</dict>\n</plist>\n";
}

std::string program(const Application& application) {
  if (application.marker.empty()) return "#!/bin/sh\nexit 0\n";
  const std::string marker = application.marker.string();
  return "#!/bin/sh\nprintf '%s\\n%s\\n' '" + application.version + "' \"$$\" > '" + marker +
         ".new' && mv '" + marker + ".new' '" + marker + "'\n";
}

struct ArchiveEntry {
  archive_entry* entry = archive_entry_new();
  ~ArchiveEntry() { archive_entry_free(entry); }
};

la_ssize_t append(archive*, void* to, const void* bytes, std::size_t size) {
  static_cast<std::string*>(to)->append(static_cast<const char*>(bytes), size);
  return static_cast<la_ssize_t>(size);
}

void write_entry(archive* to, const Entry& from) {
  ArchiveEntry made;
  archive_entry* entry = made.entry;
  archive_entry_set_pathname(entry, from.path.c_str());
  archive_entry_set_perm(entry, from.permissions);
  archive_entry_set_mtime(entry, 1000000000, 0);
  archive_entry_set_size(entry, 0);
  switch (from.kind) {
  case Entry::Kind::file:
    archive_entry_set_filetype(entry, AE_IFREG);
    archive_entry_set_size(entry, static_cast<la_int64_t>(from.contents.size()));
    break;
  case Entry::Kind::folder:
    archive_entry_set_filetype(entry, AE_IFDIR);
    break;
  case Entry::Kind::fifo:
    archive_entry_set_filetype(entry, AE_IFIFO);
    break;
  case Entry::Kind::link:
    archive_entry_set_filetype(entry, AE_IFLNK);
    archive_entry_set_symlink(entry, from.contents.c_str());
    break;
  case Entry::Kind::hard_link:
    archive_entry_set_filetype(entry, AE_IFREG);
    archive_entry_set_hardlink(entry, from.contents.c_str());
    break;
  }
  if (archive_write_header(to, entry) != ARCHIVE_OK)
    fail("the archive entry " + from.path + ": " + archive_error_string(to));
  if (from.kind == Entry::Kind::file && !from.contents.empty())
    archive_write_data(to, from.contents.data(), from.contents.size());
}

} // namespace

std::string percent_escaped(const std::string& path) {
  std::string text;
  for (unsigned char byte : path) {
    char escape[4];
    bool plain = std::isalnum(byte) || strchr("/-._~!$&'()*+,=:@", byte);
    snprintf(escape, sizeof escape, plain ? "%c" : "%%%02X", byte);
    text += escape;
  }
  return text;
}

Folder::Folder() {
  const std::filesystem::path base = TESTBED_TMP;
  std::filesystem::create_directories(base);
  std::string pattern = (base / "XXXXXX").string();
  if (!mkdtemp(pattern.data())) fail("no folder can be made in " + base.string());
  path_ = pattern;
}

Folder::~Folder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

KeyPair make_key_pair() {
  EVP_PKEY* raw = nullptr;
  const Key parameters(PEM_read_bio_Parameters(reader(kParameters).get(), nullptr));
  if (!parameters) fail("the DSA parameters cannot be read");
  const KeyContext context(EVP_PKEY_CTX_new(parameters.get(), nullptr));
  if (!context || EVP_PKEY_keygen_init(context.get()) != 1 ||
      EVP_PKEY_keygen(context.get(), &raw) != 1)
    fail("no DSA key can be made");
  const Key key(raw);
  return {written([&](BIO* bio) {
            return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
          }),
          written([&](BIO* bio) { return PEM_write_bio_PUBKEY(bio, key.get()); })};
}

std::string sign(const KeyPair& keys, const std::string& archive) {
  std::string digest(EVP_MAX_MD_SIZE, '\0');
  unsigned size = 0;
  if (EVP_Digest(archive.data(), archive.size(), reinterpret_cast<unsigned char*>(digest.data()),
                 &size, EVP_sha1(), nullptr) != 1)
    fail("no digest can be made");
  digest.resize(size);
  return sign_once(keys, digest);
}

std::string sign_once(const KeyPair& keys, const std::string& bytes) {
  const Key key(PEM_read_bio_PrivateKey(reader(keys.private_pem).get(), nullptr, nullptr, nullptr));
  if (!key) fail("the private key cannot be read");
  const DigestContext context(EVP_MD_CTX_new());
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  std::size_t size = 0;
  if (EVP_DigestSignInit(context.get(), nullptr, EVP_sha1(), nullptr, key.get()) != 1 ||
      EVP_DigestSign(context.get(), nullptr, &size, data, bytes.size()) != 1)
    fail("the key cannot sign");
  std::vector<unsigned char> signature(size);
  if (EVP_DigestSign(context.get(), signature.data(), &size, data, bytes.size()) != 1)
    fail("the key cannot sign");
  std::vector<unsigned char> base64((size + 2) / 3 * 4 + 1);
  const int length = EVP_EncodeBlock(base64.data(), signature.data(), static_cast<int>(size));
  return {base64.begin(), base64.begin() + length};
}

std::string make_archive(const std::vector<Entry>& entries, ArchiveKind kind) {
  std::string result;
  archive* to = archive_write_new();
  if (kind == ArchiveKind::zip) {
    archive_write_set_format_zip(to);
  } else {
    archive_write_set_format_pax_restricted(to);
    archive_write_add_filter_gzip(to);
  }
  archive_write_set_bytes_in_last_block(to, 1);
  archive_write_open2(to, &result, nullptr, append, nullptr, nullptr);
  for (const Entry& entry : entries) write_entry(to, entry);
  const int closed = archive_write_close(to);
  archive_write_free(to);
  if (closed != ARCHIVE_OK) fail("the archive cannot be made");
  return result;
}

std::vector<Entry> entries_of(const Application& application) {
  const std::string contents = application.folder + "/Contents/";
  const auto folder = [](const std::string& path) {
    return Entry{path, "", Entry::Kind::folder, 0755};
  };
  std::vector<Entry> entries = {
      folder(application.folder),
      folder(contents),
      folder(contents + "MacOS"),
      folder(contents + "Resources"),
      {contents + "Info.plist", info_plist(application)},
      {contents + "MacOS/" + application.name, program(application), Entry::Kind::file, 0755},
  };
  if (!application.public_pem.empty())
    entries.push_back({contents + "Resources/dsa_pub.pem", application.public_pem});
  for (const auto& [path, bytes] : application.files)
    entries.push_back({application.folder + "/" + path, bytes});
  return entries;
}

std::filesystem::path write_application(const Application& application,
                                        const std::filesystem::path& parent) {
  for (const Entry& entry : entries_of(application)) {
    const std::filesystem::path path = parent / entry.path;
    if (entry.kind == Entry::Kind::folder)
      std::filesystem::create_directories(path);
    else
      write_file(path, entry.contents, entry.permissions);
  }
  return parent / application.folder;
}

std::string installed_version(const std::filesystem::path& bundle) {
  const std::string info = read_file(bundle / "Contents/Info.plist");
  const std::string before = "<key>CFBundleVersion</key>\n  <string>";
  const std::size_t key = info.find(before);
  if (key == std::string::npos) return {};
  const std::size_t begin = key + before.size();
  return info.substr(begin, info.find('<', begin) - begin);
}

std::string appcast_xml(const std::vector<Item>& items) {
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                     "<rss version=\"2.0\" xmlns:sparkle=\"http://example.org/xml/sparkle\">\n"
                     "  <channel>\n    <title>Releases</title>\n";
  for (const Item& item : items) {
    const auto element = [&](const char* name, const std::string& value) {
      if (!value.empty())
        text += std::string("      <") + name + ">" + xml(value) + "</" + name + ">\n";
    };
    const auto attribute = [&](const char* name, const std::string& value) {
      if (!value.empty()) text += std::string(" ") + name + "=\"" + xml(value) + "\"";
    };
    text += "    <item>\n";
    element("title", item.title);
    element("description", item.description);
    element("pubDate", item.date);
    element("sparkle:releaseNotesLink", item.release_notes);
    element("sparkle:minimumSystemVersion", item.minimum_system);
    if (!item.url.empty()) {
      text += "      <enclosure";
      attribute("url", item.url);
      attribute("sparkle:version", item.version);
      attribute("sparkle:shortVersionString", item.short_version);
      attribute("length", item.length);
      attribute("type", item.type);
      attribute("sparkle:dsaSignature", item.signature);
      text += "/>\n";
    }
    text += item.extra + "    </item>\n";
  }
  return text + "  </channel>\n</rss>\n";
}

Item publish(Server& server, const Application& application, const KeyPair& keys) {
  const std::string archive = make_archive(entries_of(application));
  const std::string path = "/" + application.name + "_" + application.version + ".zip";
  Item item;
  item.title = application.name + " " + application.version;
  item.description = "What is new in " + application.version;
  item.date = "Sat, 26 Jul 2008 15:20:11 +0000";
  item.release_notes = server.url("/notes.html");
  item.minimum_system = "10.6";
  item.version = application.version;
  item.short_version = application.short_version;
  item.url = server.url(path);
  item.length = std::to_string(archive.size());
  item.signature = sign(keys, archive);
  server.serve(path, {archive, "application/zip"});
  server.serve("/notes.html", {"<p>New.</p>\n", "text/html"});
  server.serve("/appcast.xml", {appcast_xml({item})});
  return item;
}

bool wait_for_file(const std::filesystem::path& file, std::chrono::milliseconds patience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!std::filesystem::exists(file)) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

std::string read_file(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return in ? std::string(std::istreambuf_iterator<char>(in), {}) : std::string();
}

void write_file(const std::filesystem::path& file, const std::string& contents,
                unsigned permissions) {
  if (file.has_parent_path()) std::filesystem::create_directories(file.parent_path());
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out << contents;
  out.close();
  if (!out) fail(file.string() + " cannot be written");
  std::filesystem::permissions(file, static_cast<std::filesystem::perms>(permissions));
}

} // namespace testbed
