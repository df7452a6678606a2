// search run: the instance searches; the CLI builds the query and renders the reply.
#include "core/text.h"
#include "verbs/search_verbs.h"

#include <array>
#include <string_view>

#include "core/cli_error.h"
#include "instances/instances.h"
#include "json/reader.h"
#include "transport/transport.h"
#include "verbs/verbs.h"

namespace vorn {

namespace {

struct SwitchKey {
  std::string_view option;
  std::string_view key;
};

// Switches are sent as "1" whenever present.
constexpr std::array<SwitchKey, 3> switchKeys = {{
    {"--regex", "regex"},
    {"--case", "case"},
    {"--word", "word"},
}};

constexpr std::array<SwitchKey, 3> valueKeys = {{
    {"--include", "include"},
    {"--exclude", "exclude"},
    {"--max", "max"},
}};

}  // namespace

QueryPairs searchPairs(const Flags& flags) {
  QueryPairs pairs = {{"q", flags.args.front()}};
  for (const SwitchKey& row : switchKeys) {
    if (flags.has(std::string(row.option))) pairs.emplace_back(row.key, "1");
  }
  // Passed through as typed: the instance splits globs and parses the cap.
  for (const SwitchKey& row : valueKeys) {
    if (const std::string* value = flags.value(std::string(row.option))) {
      pairs.emplace_back(row.key, *value);
    }
  }
  return pairs;
}

namespace {

std::string rendered(const std::optional<JSON>& value) {
  return renderValue(value ? &*value : nullptr);
}

// Where a value stands in a search reply, as far as the listing cares. A file and a match are
// read when they are objects, the files and a file's matches when they are arrays; anything
// else in their place lists nothing, except a match, which lists with every field undefined.
enum class Role { top, files, file, matches, match, other };

// Picks the listing out of a search reply while it is read: each file's match lines are
// rendered when the file closes, and only the few fields the lines and the summary show are
// kept as values, so a reply of ten thousand matches is never held as a tree. Of repeated keys
// the last one counts, as for any lookup in a reply.
class SearchSink {
 public:
  SearchListing take() { return std::move(listing_); }

  void null() {
    if (capturing()) return capture_.null();
    scalar(JSON());
  }
  void boolean(bool b) {
    if (capturing()) return capture_.boolean(b);
    scalar(JSON(b));
  }
  void number(double v) {
    if (capturing()) return capture_.number(v);
    scalar(JSON(v));
  }
  void string(const StringRead& s) {
    if (capturing()) return capture_.string(s);
    scalar(JSON(s.text));
  }
  void key(const StringRead& k) {
    if (capturing()) return capture_.key(k);
    key_.assign(k.text);
  }
  void beginArray() { begin(false); }
  void beginObject() { begin(true); }
  void endArray() { end(false); }
  void endObject() { end(true); }

 private:
  struct Level {
    Role role;
    bool object;
  };

  bool capturing() const { return captureInto_ != nullptr; }

  // The role of the value that starts now, from its parent and, in an object, its key. A field
  // the listing shows is captured whole into its slot instead.
  Role roleOfNext(std::optional<JSON>*& slot) {
    slot = nullptr;
    if (levels_.empty()) return Role::top;
    const Level& parent = levels_.back();
    if (!parent.object) {
      if (parent.role == Role::files) return Role::file;
      if (parent.role == Role::matches) return Role::match;
      return Role::other;
    }
    if (parent.role == Role::top) {
      if (key_ == "files") return Role::files;
      if (key_ == "matchCount") slot = &listing_.matchCount;
      if (key_ == "fileCount") slot = &listing_.fileCount;
      if (key_ == "engine") slot = &listing_.engine;
      if (key_ == "limitHit") slot = &listing_.limitHit;
      if (key_ == "error") slot = &listing_.error;
    } else if (parent.role == Role::file) {
      if (key_ == "matches") return Role::matches;
      if (key_ == "path") slot = &path_;
    } else if (parent.role == Role::match) {
      if (key_ == "line") slot = &line_;
      if (key_ == "col") slot = &col_;
      if (key_ == "preview") slot = &preview_;
    }
    return Role::other;
  }

  // What a value of this role resets the moment it starts, whatever its kind.
  void starting(Role role) {
    switch (role) {
      case Role::files:
        listing_.lines.clear();
        break;
      case Role::file:
        path_.reset();
        pending_.clear();
        break;
      case Role::matches:
        pending_.clear();
        break;
      case Role::match:
        line_.reset();
        col_.reset();
        preview_.reset();
        break;
      default:
        break;
    }
  }

  void scalar(JSON value) {
    std::optional<JSON>* slot;
    Role role = roleOfNext(slot);
    if (slot) {
      *slot = std::move(value);
      return;
    }
    starting(role);
    if (role == Role::match) addMatch();
  }

  void begin(bool object) {
    if (capturing()) {
      ++captureDepth_;
      return object ? capture_.beginObject() : capture_.beginArray();
    }
    std::optional<JSON>* slot;
    Role role = roleOfNext(slot);
    if (slot) {
      capture_ = TreeSink();
      captureInto_ = slot;
      captureDepth_ = 1;
      return object ? capture_.beginObject() : capture_.beginArray();
    }
    starting(role);
    levels_.push_back({role, object});
  }

  void end(bool object) {
    if (capturing()) {
      object ? capture_.endObject() : capture_.endArray();
      if (--captureDepth_ == 0) {
        *captureInto_ = capture_.result();
        captureInto_ = nullptr;
      }
      return;
    }
    Role role = levels_.back().role;
    levels_.pop_back();
    if (role == Role::match) addMatch();
    if (role == Role::file) addFile();
  }

  void addMatch() {
    pending_.push_back(rendered(line_) + ':' + rendered(col_) + ": " + rendered(preview_));
  }

  // The path is rendered once per file; every match line of the file starts with it.
  void addFile() {
    if (pending_.empty()) return;
    const std::string path = rendered(path_);
    for (const std::string& match : pending_) {
      listing_.lines += path;
      listing_.lines += ':';
      listing_.lines += match;
      listing_.lines += '\n';
    }
    pending_.clear();
  }

  SearchListing listing_;
  std::vector<Level> levels_;
  std::string key_;
  std::optional<JSON> path_, line_, col_, preview_;
  std::vector<std::string> pending_;  // the current file's match lines, after the path
  TreeSink capture_;
  std::optional<JSON>* captureInto_ = nullptr;
  int captureDepth_ = 0;
};

}  // namespace

SearchListing readSearchReply(std::string_view text) {
  SearchSink sink;
  readJSON(text, sink);
  return sink.take();
}

std::string searchSummary(const SearchListing& listing) {
  std::string out = rendered(listing.matchCount) + " matches in " + rendered(listing.fileCount) +
                    " files (" + rendered(listing.engine) + ")";
  if (listing.limitHit && listing.limitHit->isTrue()) {
    out += " \u2014 limit hit, results truncated";
  }
  out += '\n';
  return out;
}

namespace {

// The listing of a reply; a body that is not JSON lists as the error object it stands for.
SearchListing listingOf(const RawReply& reply) {
  try {
    return readSearchReply(reply.body);
  } catch (const JSONParseError&) {
    return readSearchReply(Transport::notJSON(reply.status, reply.body).serialized(0));
  }
}

void searchRun(const Flags& flags, Instances& instances) {
  if (flags.args.empty()) throw usageError("vorn search run: missing pattern");
  std::string path = "/search?" + searchParams(searchPairs(flags));
  InstanceInfo target = instances.one(flags, "search run");

  RawReply reply;
  try {
    Waiting waiting(instances.ctx.status, answerWait(waitingForAnswer(target)));
    reply = Transport::exchange(target.socketPath, "GET", path);
  } catch (const TransportError& e) {
    throw CliError{"vorn search run: " + e.description};
  }
  const bool ok = reply.ok();
  const SearchListing listing = listingOf(reply);

  if (flags.json) {
    Transport::printBody(reply, instances.ctx.writeOut);
  } else {
    // One write for the whole listing, however many matches there are. The matches are shown
    // as the files hold them; the summary is ours.
    if (!listing.lines.empty()) instances.ctx.writeOut(listing.lines);
    if (ok) instances.ctx.writeErr(visibleControls(searchSummary(listing)));
  }

  if (!ok) {
    std::optional<std::string_view> error = listing.error ? listing.error->string() : std::nullopt;
    throw CliError{"vorn search run: " +
                   (error ? std::string(*error) : std::to_string(reply.status))};
  }
  // Nothing matched: the exit status says so, without further text.
  std::optional<double> count = listing.matchCount ? listing.matchCount->number() : std::nullopt;
  if (!count || *count == 0) throw CliError{"", 1};
}

}  // namespace

VerbTable searchVerbs() {
  return {{"run", searchRun}};
}

}  // namespace vorn
