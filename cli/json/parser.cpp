// JSON text to a value, or straight to indented text: the two everyday uses of the grammar in
// json/reader.h, and the helpers it shares.
#include <charconv>
#include <cstring>
#include <iterator>
#include <limits>
#include <vector>

#include "json/block_writer.h"
#include "json/json.h"
#include "json/reader.h"

namespace vorn {

namespace JSONDetail {

void appendScalar(std::string& out, uint32_t c) {
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    char b[2] = {static_cast<char>(0xC0 | (c >> 6)), static_cast<char>(0x80 | (c & 0x3F))};
    out.append(b, 2);
  } else if (c < 0x10000) {
    char b[3] = {static_cast<char>(0xE0 | (c >> 12)), static_cast<char>(0x80 | ((c >> 6) & 0x3F)),
                 static_cast<char>(0x80 | (c & 0x3F))};
    out.append(b, 3);
  } else {
    char b[4] = {static_cast<char>(0xF0 | (c >> 18)), static_cast<char>(0x80 | ((c >> 12) & 0x3F)),
                 static_cast<char>(0x80 | ((c >> 6) & 0x3F)), static_cast<char>(0x80 | (c & 0x3F))};
    out.append(b, 4);
  }
}

}  // namespace JSONDetail

namespace {

// Writes the text that serializing the value at the given depth would give, as the value is
// read; with a block writer, hands the text on whenever a block is full.
class WriterSink {
 public:
  WriterSink(std::string& out, int indent, int depth = 0, BlockWriter* blocks = nullptr)
      : out_(out), indent_(indent), depth_(static_cast<size_t>(depth)), blocks_(blocks) {}

  void null() {
    beforeValue();
    out_ += "null";
  }
  void boolean(bool b) {
    beforeValue();
    out_ += b ? "true" : "false";
  }
  void number(double v) {
    beforeValue();
    JSON::appendNumber(out_, v);
  }
  void string(const StringRead& s) {
    beforeValue();
    quote(s);
  }
  void key(const StringRead& k) {
    separate();
    quote(k);
    if (indent_ > 0) {
      out_.append(": ", 2);
    } else {
      out_.push_back(':');
    }
  }
  void beginArray() { open('['); }
  void beginObject() { open('{'); }
  void endArray() { close(']'); }
  void endObject() { close('}'); }

 private:
  // What the reader hands on is valid UTF-8, and often already the text to write.
  void quote(const StringRead& s) {
    if (s.verbatim) {
      JSONDetail::appendVerbatim(out_, s.text);
    } else {
      JSONDetail::appendQuotedUTF8(out_, s.text);
    }
  }

  // A line feed and the indentation of the given depth (nothing at indent 0).
  void pad(size_t depth) {
    if (indent_ <= 0) return;
    out_.push_back('\n');
    out_.append(static_cast<size_t>(indent_) * (depth_ + depth), ' ');
  }
  // The comma before every entry of a container but the first, and the entry's line.
  void separate() {
    if (blocks_) blocks_->flushIfFull();
    Level& level = levels_.back();
    if (!level.empty) out_.push_back(',');
    level.empty = false;
    pad(levels_.size());
  }
  // In an array a value starts an entry; in an object its key already did.
  void beforeValue() {
    if (!levels_.empty() && !levels_.back().object) separate();
  }
  void open(char bracket) {
    beforeValue();
    out_.push_back(bracket);
    levels_.push_back({true, bracket == '{'});
  }
  void close(char bracket) {
    bool empty = levels_.back().empty;
    levels_.pop_back();
    if (!empty) pad(levels_.size());
    out_.push_back(bracket);
  }

  struct Level {
    bool empty;   // no entry written yet
    bool object;  // an object rather than an array
  };

  std::string& out_;
  int indent_;
  size_t depth_;                // the depth of the value read, in the text around it
  BlockWriter* blocks_;         // where full blocks go, if anywhere
  std::vector<Level> levels_;   // the containers open, outermost first
};

}  // namespace

// Read twice: once to check the text and count the entries of each container, once to build
// the value with every container at its exact size.
JSON JSON::parse(std::string_view text, TextBytes bytes) {
  SizeSink sizes;
  readJSON(text, sizes);
  TreeSink tree(sizes.take());
  readJSON(text, tree, bytes);
  return tree.result();
}

std::string JSON::reformat(std::string_view text, int indent) {
  std::string out;
  // Room for the usual growth of indented text; pages never written cost no memory.
  out.reserve(2 * text.size() + 64);
  WriterSink sink(out, indent);
  readJSON(text, sink);
  return out;
}

void JSON::reformatTo(std::string_view text, int indent, int depth, BlockWriter& out,
                      TextBytes bytes) {
  // Checked whole first, so that nothing is handed on for text that does not parse.
  CheckSink check;
  readJSON(text, check);
  WriterSink sink(out.text(), indent, depth, &out);
  readJSON(text, sink, bytes);
}

}  // namespace vorn
