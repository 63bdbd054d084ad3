#include "image.h"

#include "macho.h"

#include <algorithm>
#include <map>

namespace loader {

using namespace macho;

namespace {

const std::map<std::uint32_t, const char*> commandNames = {
    {LC_SEGMENT, "LC_SEGMENT"},   {LC_SYMTAB, "LC_SYMTAB"},
    {LC_DYSYMTAB, "LC_DYSYMTAB"}, {LC_LOAD_DYLIB, "LC_LOAD_DYLIB"},
    {LC_UUID, "LC_UUID"},         {LC_DYLD_INFO_ONLY, "LC_DYLD_INFO_ONLY"},
};

constexpr std::uint32_t headerSize = 28, pageSize = 4096;

bool within(std::uint64_t start, std::uint64_t size, std::uint64_t outerStart,
            std::uint64_t outerSize) {
  return start >= outerStart && size <= outerSize && start - outerStart <= outerSize - size;
}

bool overlap(std::uint64_t a, std::uint64_t aSize, std::uint64_t b, std::uint64_t bSize) {
  return aSize && bSize && a < b + bSize && b < a + aSize;
}

class Parser {
public:
  explicit Parser(Reader& reader) : reader_(reader) {}

  Image parse() {
    header();
    std::uint64_t at = headerSize, end = headerSize + std::uint64_t{reader_.word(20)};
    std::uint32_t count = reader_.word(16);
    reader_.range(0, end);
    for (std::uint32_t i = 0; i < count; ++i) {
      std::string number = "load command " + std::to_string(i);
      reader_.enter(number);
      if (end - at < 8) reader_.refuse(at, "the load commands end at " + hex(end));
      std::uint32_t command = reader_.word(at), size = reader_.word(at + 4);
      auto known = commandNames.find(command);
      if (known == commandNames.end()) reader_.refuse(at, "unknown load command " + hex(command));
      title_ = number + " (" + known->second + ")";
      reader_.enter(title_);
      if (size < 8 || size % 4 || size > end - at)
        reader_.refuse(at + 4, "its size is " + hex(size) + ", with " + hex(end - at) + " left");
      if (command != LC_SEGMENT && command != LC_LOAD_DYLIB && seen_[command]++)
        reader_.refuse(at, "a second one");
      at_ = at;
      size_ = size;
      dispatch(command);
      at += size;
    }
    reader_.enter("load commands");
    if (at != end) reader_.refuse(at, "they do not fill their space, which ends at " + hex(end));
    if (!seen_[LC_DYLD_INFO_ONLY]) reader_.refuse(at, "LC_DYLD_INFO_ONLY is missing");
    if (image_.segments.empty()) reader_.refuse(at, "there is no segment");
    const SegmentCommand& first = image_.segments.front();
    if (first.fileOffset != 0 || first.fileSize < end)
      reader_.refuse(headerSize, "they do not lie in the first segment");
    return std::move(image_);
  }

private:
  void header() {
    if (reader_.word(0) != magic)
      reader_.refuse(0, "not a 32-bit Mach-O file: it begins with " + hex(reader_.word(0)));
    if (reader_.word(4) != cpuI386)
      reader_.refuse(4, "for processor " + hex(reader_.word(4)) + ", not i386 (0x7)");
    if (reader_.word(8) != cpuSubtypeI386)
      reader_.refuse(8, "for i386 variant " + hex(reader_.word(8)) + ", not for all (0x3)");
    if (reader_.word(12) != bundleFile)
      reader_.refuse(12, "of file type " + hex(reader_.word(12)) + ", not a bundle (0x8)");
    std::uint32_t flags = reader_.word(24), wanted = dyldLink | twoLevel;
    if ((flags & wanted) != wanted || flags & ~(wanted | noUndefined))
      reader_.refuse(24, "flags " + hex(flags) +
                             ": wanted are 0x84 or 0x85, a bundle for the "
                             "dynamic linker with a two-level namespace");
  }

  void dispatch(std::uint32_t command) {
    switch (command) {
    case LC_SEGMENT:
      return segment();
    case LC_SYMTAB:
      return symbols();
    case LC_DYSYMTAB:
      return dynamicSymbols();
    case LC_LOAD_DYLIB:
      return library();
    case LC_DYLD_INFO_ONLY:
      return linkInformation();
    case LC_UUID:
      return exactly(24);
    }
  }

  std::uint32_t word(std::uint32_t offset) const { return reader_.word(at_ + offset); }

  void exactly(std::uint32_t size) const {
    if (size_ != size) reader_.refuse(at_ + 4, "its size is " + hex(size_) + ", not " + hex(size));
  }

  Range range(std::uint32_t offset) const {
    Range range{word(offset), word(offset + 4)};
    table(offset, range.offset, range.size);
    return range;
  }

  void table(std::uint32_t field, std::uint64_t start, std::uint64_t size) const {
    if (!within(start, size, 0, reader_.size()))
      reader_.refuse(at_ + field, "a table from " + hex(start) + " of size " + hex(size) +
                                      " reaches beyond the file");
  }

  void zero(std::uint32_t offset, const char* what) const {
    if (word(offset)) reader_.refuse(at_ + offset, std::string(what) + " are not understood");
  }

  void segment() {
    if (size_ < 56) exactly(56);
    SegmentCommand segment{
        reader_.fixedText(at_ + 8, 16), word(24), word(28), word(32), word(36), word(44)};
    std::uint32_t sections = word(48);
    if (sections != (size_ - 56) / 68 || (size_ - 56) % 68)
      reader_.refuse(at_ + 48,
                     "its size does not fit its " + std::to_string(sections) + " sections");
    if (segment.address % pageSize || std::uint64_t{segment.address} + segment.size > UINT32_MAX)
      reader_.refuse(at_ + 24, segment.name + " has address " + hex(segment.address) +
                                   " and size " + hex(segment.size));
    if (segment.fileSize > segment.size)
      reader_.refuse(at_ + 36, segment.name + " takes more room in the file than in memory");
    if (!within(segment.fileOffset, segment.fileSize, 0, reader_.size()))
      reader_.refuse(at_ + 32, segment.name + " reaches beyond the file: it ends at " +
                                   hex(std::uint64_t{segment.fileOffset} + segment.fileSize));
    if (segment.protection & ~(mayRead | mayWrite | mayExecute))
      reader_.refuse(at_ + 44, segment.name + " has protection " + hex(segment.protection));
    if (word(52)) reader_.refuse(at_ + 52, segment.name + " has flags " + hex(word(52)));
    for (const SegmentCommand& other : image_.segments)
      if (overlap(segment.address, segment.size, other.address, other.size) ||
          overlap(segment.fileOffset, segment.fileSize, other.fileOffset, other.fileSize))
        reader_.refuse(at_ + 24, segment.name + " overlaps " + other.name);
    image_.segments.push_back(segment);
    if (segment.size == 0) reader_.refuse(at_ + 28, segment.name + " is empty");
    if (image_.highest() - image_.lowest() > imageLimit)
      reader_.refuse(at_ + 24, "the segments span more than " + hex(imageLimit) + " bytes");
    for (std::uint32_t i = 0; i < sections; ++i) section(segment, 56 + 68 * i);
  }

  void section(const SegmentCommand& segment, std::uint32_t at) {
    std::string name = segment.name + "," + reader_.fixedText(at_ + at, 16);
    std::uint32_t address = word(at + 32), size = word(at + 36), offset = word(at + 40);
    if (!within(address, size, segment.address, segment.size))
      reader_.refuse(at_ + at + 32, name + " is not inside its segment");
    if (word(at + 52)) reader_.refuse(at_ + at + 52, name + " has relocation entries");
    switch (std::uint32_t type = word(at + 56) & 0xFF) {
    case zeroFill:
      if (offset) reader_.refuse(at_ + at + 40, name + " is zero-filled and has contents");
      break;
    case regular:
    case strings:
    case literals4:
    case literals8:
    case literals16:
      if (size && (!within(offset, size, segment.fileOffset, segment.fileSize) ||
                   offset - segment.fileOffset != address - segment.address))
        reader_.refuse(at_ + at + 40, name + " is elsewhere in the file than its segment");
      break;
    default:
      reader_.refuse(at_ + at + 56,
                     name + " is of type " + hex(type) + ", which is not understood");
    }
  }

  void library() {
    if (size_ < 24) exactly(24);
    std::uint32_t name = word(8);
    if (name < 24 || name > size_)
      reader_.refuse(at_ + 8, "the name begins at " + hex(name) + " of " + hex(size_));
    image_.libraries.emplace_back(reader_.text(at_ + name, at_ + size_));
  }

  void linkInformation() {
    exactly(48);
    image_.linkInformation = title_;
    image_.rebases = range(8);
    image_.binds = range(16);
    zero(28, "weak bindings");
    zero(36, "lazy bindings");
    image_.exports = range(40);
  }

  void symbols() {
    exactly(24);
    image_.symbolTable = title_;
    image_.symbolOffset = word(8);
    image_.symbolCount = word(12);
    table(8, image_.symbolOffset, std::uint64_t{image_.symbolCount} * 12);
    image_.strings = range(16);
  }

  void dynamicSymbols() {
    exactly(80);
    zero(36, "tables of contents");
    zero(44, "modules");
    zero(60, "indirect symbols");
    zero(68, "external relocation entries");
    zero(76, "local relocation entries");
  }

  Reader& reader_;
  Image image_;
  std::map<std::uint32_t, int> seen_;
  std::string title_;
  std::uint64_t at_ = 0; // the load command
  std::uint32_t size_ = 0;
};

} // namespace

std::uint32_t Image::lowest() const {
  return std::min_element(segments.begin(), segments.end(),
                          [](auto& a, auto& b) { return a.address < b.address; })
      ->address;
}

std::uint32_t Image::highest() const {
  std::uint32_t highest = 0;
  for (const SegmentCommand& segment : segments)
    highest = std::max(highest, segment.address + segment.size);
  return highest;
}

Reader i386Part(Reader file) {
  if (file.bigEndianWord(0) != fatMagic) return file;
  file.enter("fat header");
  std::uint32_t count = file.bigEndianWord(4);
  std::string processors;
  for (std::uint32_t i = 0; i < count; ++i) {
    std::uint64_t entry = 8 + std::uint64_t{20} * i;
    if (file.bigEndianWord(entry) == cpuI386) {
      std::uint32_t start = file.bigEndianWord(entry + 8), size = file.bigEndianWord(entry + 12);
      if (!within(start, size, 0, file.size()))
        file.refuse(entry + 8, "the i386 part reaches beyond the file: it ends at " +
                                   hex(std::uint64_t{start} + size));
      return file.part(start, size);
    }
    processors += (i ? ", " : "") + hex(file.bigEndianWord(entry));
  }
  file.refuse(4, "a fat file without i386, for the processors " + processors);
}

Image parse(Reader& reader) { return Parser(reader).parse(); }

} // namespace loader
