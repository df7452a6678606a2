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
  void string(std::string& s) {
    beforeValue();
    JSON::appendQuoted(out_, s);
  }
  void key(std::string& k) {
    separate();
    JSON::appendQuoted(out_, k);
    out_ += indent_ > 0 ? ": " : ":";
  }
  void beginArray() { open('['); }
  void beginObject() { open('{'); }
  void endArray() { close(']'); }
  void endObject() { close('}'); }

 private:
  // A line feed and the indentation of the given depth (nothing at indent 0).
  void pad(size_t depth) {
    if (indent_ <= 0) return;
    out_.push_back('\n');
    out_.append(static_cast<size_t>(indent_) * (depth_ + depth), ' ');
  }
  // The comma before every entry of a container but the first, and the entry's line.
  void separate() {
    if (blocks_) blocks_->flushIfFull();
    if (!open_.back()) out_.push_back(',');
    open_.back() = false;
    pad(open_.size());
  }
  // In an array a value starts an entry; in an object its key already did.
  void beforeValue() {
    if (!inObject_.empty() && !inObject_.back()) separate();
  }
  void open(char bracket) {
    beforeValue();
    out_.push_back(bracket);
    open_.push_back(true);
    inObject_.push_back(bracket == '{');
  }
  void close(char bracket) {
    bool empty = open_.back();
    open_.pop_back();
    inObject_.pop_back();
    if (!empty) pad(open_.size());
    out_.push_back(bracket);
  }

  std::string& out_;
  int indent_;
  size_t depth_;                // the depth of the value read, in the text around it
  BlockWriter* blocks_;         // where full blocks go, if anywhere
  std::vector<bool> open_;      // per level: no entry written yet
  std::vector<bool> inObject_;  // per level: an object rather than an array
};

}  // namespace

// Read twice: once to check the text and count the entries of each container, once to build
// the value with every container at its exact size.
JSON JSON::parse(std::string_view text) {
  SizeSink sizes;
  readJSON(text, sizes);
  TreeSink tree(sizes.take());
  readJSON(text, tree);
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

void JSON::reformatTo(std::string_view text, int indent, int depth, BlockWriter& out) {
  // Checked whole first, so that nothing is handed on for text that does not parse.
  CheckSink check;
  readJSON(text, check);
  WriterSink sink(out.text(), indent, depth, &out);
  readJSON(text, sink);
}

}  // namespace vorn
