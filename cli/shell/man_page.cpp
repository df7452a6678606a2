#include "shell/man_page.h"

#include <cstdio>

#include "core/command_table.h"
#include "core/dev_table.h"
#include "core/help.h"
#include "core/text.h"
#include "shell/completion_model.h"

namespace vorn {

namespace {

// The code point of the UTF-8 sequence at text[i], advancing i past it. A malformed byte
// stands for itself.
uint32_t nextCodePoint(std::string_view text, size_t& i) {
  unsigned char c = text[i++];
  int more = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : 0;
  uint32_t cp = more == 3 ? c & 0x07 : more == 2 ? c & 0x0F : more == 1 ? c & 0x1F : c;
  for (int k = 0; k < more && i < text.size() && (text[i] & 0xC0) == 0x80; ++k)
    cp = (cp << 6) | (static_cast<unsigned char>(text[i++]) & 0x3F);
  return cp;
}

std::string bold(std::string_view text) {
  return "\\fB" + roffText(text) + "\\fR";
}

std::string italic(std::string_view text) {
  return "\\fI" + roffText(text) + "\\fR";
}

// "-i, --instance ID" in the fonts of a manual: flags bold, the value italic.
std::string optionTag(const OptionSpec& option) {
  std::string tag = option.alias ? bold(*option.alias) + ", " : "";
  tag += bold(option.name);
  if (option.value) tag += " " + italic(*option.value);
  return tag;
}

// A tagged paragraph: the tag on its own line, the text indented below it.
std::string item(const std::string& tag, std::string_view text) {
  return ".TP\n" + tag + "\n" + roffText(text) + "\n";
}

std::string options(const std::vector<OptionSpec>& list) {
  if (list.empty()) return "";
  std::string out = ".RS\n";
  for (const OptionSpec& option : list)
    out += item(optionTag(option), option.summary);
  return out + ".RE\n";
}

const char* const synopsis = R"ROFF(.SH SYNOPSIS
.nf
\fBvorn\fR \fInoun\fR \fIverb\fR [\fIargs\fR] [\fIflags\fR]
\fBvorn\fR \fIdir\fR | \fIfile\fR[:\fIline\fR[:\fIcol\fR]]
\fBvorn dev\fR \fInoun\fR \fIverb\fR [\fIargs\fR] [\fIflags\fR]
\fBvorn help\fR [\fInoun\fR]
\fBvorn\fR \fInoun\fR \fIverb\fR \fB\-\-help\fR
\fBvorn version\fR
.fi
.SH DESCRIPTION
.B vorn
is the command\-line front end of the Vorn desktop code editor.
Every editor window, headless host and remote forwarder runs a small HTTP/1.1 control
server on a Unix\-domain socket.
.B vorn
finds these live instances, picks one or several of them from the selector flags, sends
them JSON requests and prints the replies as text, as aligned tables or, with
\fB\-o json\fR, as JSON.
.PP
Mutating verbs with no selector act on the only instance (run from a checkout: the only
one started from it); with several, or none of the checkout's, they exit 2 and list them.
Read\-only verbs default to every instance.
.PP
\fBvorn\fR \fIdir\fR is short for \fBvorn workspace open\fR \fIdir\fR, and
\fBvorn\fR \fIfile\fR[:\fIline\fR[:\fIcol\fR]] for \fBvorn file open\fR.
.PP
\fBvorn help\fR lists every noun with its verbs, \fBvorn help\fR \fInoun\fR explains one
noun, and \fBvorn\fR \fInoun verb\fR \fB\-\-help\fR one verb.
\fBvorn version\fR prints the version of the CLI and of each instance's control protocol.
\fBvorn shell\-command completion bash\fR|\fBzsh\fR|\fBfish\fR prints a completion script
for the shell.
)ROFF";

const char* const closing = R"ROFF(.SH EXIT STATUS
.TP
.B 0
Success.
.TP
.B 1
An operation failed, or a check reported failure. Also a selection that finds nothing: a
selector that matches no instance (\fBvorn instance focus \-i\fR \fInosuch\fR), \fBvorn
instance quit\fR without a selector, no running instance, or \fB\-a\fR for a verb that
takes one instance.
.TP
.B 2
A usage error: a bad command line (an unknown noun, verb or flag, a bad value, \fB\-a\fR
with \fBfile open\fR or \fBworkspace open\fR), or an ambiguous selection: several
instances where the verb needs one and nothing says which.
.TP
.B 127
A program that \fBvorn\fR hands over to (Bun running a checkout's script) could not be
started.
.SH FILES
.TP
.I $XDG_RUNTIME_DIR/vorn/<pid>/fs.sock
The control socket of the instance whose process is \fI<pid>\fR.
Without \fBXDG_RUNTIME_DIR\fR the runtime directory is under \fBTMPDIR\fR, or \fI/tmp\fR.
.TP
.I ~/.local/bin/vorn
The PATH shim that \fBvorn shell\-command install\fR writes.
.TP
.I <checkout>/.cache/vorn/dev\-app.json
The record of the dev app started from a source checkout.
.SH EXAMPLES
.TP
.B vorn instance list
The live instances as a table.
.TP
.B vorn \-o json instance list
The same as JSON.
.TP
.B vorn file open main.go:12:5
Open the file at line 12, column 5, in the instance whose workspace holds it.
.TP
.B vorn search run 'TODO' \-\-include '*.go'
Find in Files from the terminal.
.TP
.B vorn test run ./... \-i 3fa
Run the workspace's tests in the instance whose id starts with 3fa.
.TP
.B eval \(dq$(vorn shell\-command completion bash)\(dq
Load the completion into bash (in \fI~/.bashrc\fR).
)ROFF";

std::string commands() {
  std::string out = ".SH COMMANDS\n";
  for (const NounSpec& noun : productNouns()) {
    out += ".SS " + roffText(noun.noun) + "\n" + roffText(noun.summary) + "\n";
    for (const VerbSpec& verb : noun.verbs)
      out += item(bold(verb.usage), verb.summary) + options(verb.options);
  }
  return out;
}

std::string globalFlags() {
  std::string out =
      ".SH OPTIONS\n"
      "These global flags are valid on every command and may stand anywhere on the line;\n"
      "where a verb has an option of the same name, the verb's own option wins.\n";
  for (const OptionSpec& option : globalOptions())
    out += item(optionTag(option), option.summary);
  return out;
}

std::string developerTooling() {
  std::string out =
      ".SH DEVELOPER TOOLING\n"
      "In a source checkout of the editor, \\fBvorn dev\\fR hands the rest of the line, "
      "untouched,\n"
      "to the checkout's own tooling; \\fBvorn dev help\\fR describes it.\n"
      "Its nouns and verbs:\n";
  for (const DevNounSpec& noun : devNouns()) {
    std::vector<std::string> verbs;
    for (const DevVerbSpec& verb : noun.verbs)
      verbs.push_back(verb.name);
    out +=
        item(bold("vorn dev " + noun.noun) + " " + roffText(joinWords(verbs, "|")), noun.summary);
  }
  return out;
}

std::string environment() {
  std::string out = ".SH ENVIRONMENT\n";
  for (const auto& [name, summary] : environmentHelp()) out += item(bold(name), summary);
  // The help's Environment block is fixed; the opt-in time-out is documented here and in the README.
  out += item(bold("VORN_TIMEOUT"),
              "seconds to wait for any one instance before giving up (default: wait as long as "
              "it takes). An instance that does not answer the scan's GET /instance within it "
              "is left out as unreachable: a fan-out has no row for it and selecting it finds "
              "no instance. Only an instance that answers the scan and then hangs gets a "
              "failed row, or fails the command aimed at it.");
  out += item(bold("TERM"),
              "when standard error is a terminal and TERM is set and not dumb, and the output "
              "is not JSON, a wait of more than about a second shows a status line on standard "
              "error (what is awaited, for how long, how to stop), erased before any other "
              "output; and an unknown noun, verb or flag is followed by \"did you mean ...?\" "
              "when a known one is close. Standard output, messages, JSON and exit statuses "
              "never change.");
  return out;
}

}  // namespace

std::string roffText(std::string_view text) {
  std::string out;
  if (!text.empty() && (text[0] == '.' || text[0] == '\'')) out += "\\&";
  for (size_t i = 0; i < text.size();) {
    uint32_t cp = nextCodePoint(text, i);
    if (cp == '\\') {
      out += "\\e";
    } else if (cp == '-') {
      out += "\\-";
    } else if (cp == '\n') {
      out += ' ';
    } else if (cp < 0x80) {
      out += static_cast<char>(cp);
    } else {
      char buf[16];
      std::snprintf(buf, sizeof buf, "\\[u%04X]", static_cast<unsigned>(cp));
      out += buf;
    }
  }
  return out;
}

std::string manPage() {
  std::string out =
      ".\\\" Manual page for vorn(1).\n"
      ".\\\" Generated from the command table at build time; do not edit.\n"
      ".TH VORN 1 \"\" \"vorn " +
      std::string(cliVersion) +
      "\" \"User Commands\"\n"
      ".SH NAME\n"
      "vorn \\- command\\-line front end of the Vorn code editor\n";
  out += synopsis;
  out += commands();
  out += globalFlags();
  out += developerTooling();
  out += environment();
  out += closing;
  return out;
}

}  // namespace vorn
