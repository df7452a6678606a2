#include "core/dev_table.h"

namespace vorn {

namespace {

std::vector<DevNounSpec> buildDevNouns() {
  // Options that several verbs share, with one wording.
  const OptionSpec base = valueOption("--base", "REF", "compare against this revision");
  const OptionSpec only = valueOption("--only", "NAMES", "only these scenarios (comma-separated)");
  const OptionSpec out = valueOption("--out", "DIR", "write the report and screenshots here");
  const OptionSpec outFile = valueOption("--out", "FILE", "write it to FILE");
  const OptionSpec runs = valueOption("--runs", "N", "repeat N times");
  const OptionSpec sel = valueOption("--sel", "SELECTOR", "the element at this CSS selector");
  const OptionSpec text = valueOption("--text", "TEXT", "the element showing this text");
  const OptionSpec nth = valueOption("--nth", "N", "the N-th match (1-based; default the first)");
  const OptionSpec limit = valueOption("--limit", "N", "at most N entries");
  const OptionSpec timeout = valueOption("--timeout", "MS", "give up after MS milliseconds");
  const OptionSpec mods =
      valueOption("--mods", "MODS", "modifiers held: cmd, ctrl, alt, shift (comma-separated)");
  const OptionSpec pos = valueOption("--pos", "X,Y", "the point X,Y in window pixels");
  const OptionSpec offset =
      valueOption("--offset", "X,Y", "X,Y from the element's top left corner");
  const OptionSpec button =
      valueOption("--button", "BUTTON", "left, right or middle (default left)");
  const OptionSpec edition =
      valueOption("--edition", "EDITION", "go or markdown (default VORN_EDITION, then go)");
  const OptionSpec seconds = valueOption("--seconds", "N", "measure for N seconds");
  const OptionSpec interval = valueOption("--interval", "MS", "between two samples");
  const OptionSpec resumeFrom =
      valueOption("--resume-from", "SCENARIO", "skip the scenarios before this one");
  const OptionSpec budget =
      valueOption("--budget", "LIMIT", "exit 1 when the result is above LIMIT");
  const OptionSpec kind = valueOption("--type", "KIND", "only this kind of measurement or render");
  const OptionSpec data = {"--data", "-d", "JSON", "the request body"};

  return {
      {"qa",
       "QA scenarios against the dev app: runs, edition parity, sweeps and bisection",
       {
           {"run",
            "run the QA scenarios (all, or --only these) against this checkout's dev app",
            {base, valueOption("--commit", "SHA", "record the run against this commit"), resumeFrom,
             only, valueOption("--target", "TARGET", "drive this target: app, headless or remote"),
             out, runs, valueOption("--bead", "ID", "attach the report to this bead")},
            {}},
           {"parity",
            "run the scenarios in both editions and compare what they show",
            {base, only, out},
            {}},
           {"sweep",
            "run the scenarios many times and report the flaky ones",
            {runs, only, out, resumeFrom},
            {}},
           {"bisect",
            "find the first commit where a scenario fails",
            {valueOption("--good", "REV", "a revision where the scenarios pass"),
             valueOption("--bad", "REV", "a revision where they fail (default HEAD)"),
             valueOption("--worktree", "DIR", "bisect in this worktree (default: a temporary one)"),
             only, runs},
            {}},
       }},
      {"ui",
       "The dev app's window: its UI tree, terminal, screenshots and script console",
       {
           {"show", "print the window's UI tree", {sel, limit}, {}},
           {"query",
            "find elements by selector, text or role",
            {sel, text, valueOption("--role", "ROLE", "elements with this ARIA role"), nth, limit},
            {}},
           {"terminal",
            "print the integrated terminal's screen",
            {valueOption("--id", "ID", "this terminal (default the active one)"),
             valueOption("--lines", "N", "the last N lines of scrollback")},
            {}},
           {"shot",
            "save a screenshot of the window or of one element",
            {outFile, sel,
             valueOption("--settle", "MS", "wait MS milliseconds for the UI to settle first")},
            {}},
           {"eval", "evaluate a script in the window and print its result", {timeout}, {}},
           {"resize",
            "resize the window",
            {valueOption("--to", "WxH", "the new size, for example 1280x800")},
            {}},
           {"wait",
            "wait until an element shows or the UI is idle",
            {sel, text, timeout,
             valueOption("--idle", "MS", "until nothing changed for MS milliseconds")},
            {}},
       }},
      {"input",
       "Synthetic keyboard and mouse input to the dev app's window",
       {
           {"key",
            "press a key or chord",
            {mods, sel},
            {"Enter", "Escape", "Tab", "Backspace", "Delete", "Space", "ArrowUp", "ArrowDown",
             "ArrowLeft", "ArrowRight", "Home", "End", "PageUp", "PageDown"}},
           {"type", "type text into the focused element (or --sel)", {sel}, {}},
           {"click",
            "click an element or a point",
            {sel, text, nth, pos, offset, button, mods},
            {}},
           {"scroll",
            "scroll an element or the window",
            {sel, valueOption("--by", "PX", "by PX pixels (negative: up)"),
             valueOption("--to", "WHERE", "to top, bottom or a pixel offset")},
            {}},
           {"drag",
            "drag from an element or point to another point",
            {sel, pos, offset, valueOption("--to", "X,Y", "drop at X,Y in window pixels"), button},
            {}},
       }},
      {"app",
       "The checkout's dev app",
       {
           {"start",
            "build if needed and start the dev app (recorded in .cache/vorn/dev-app.json)",
            {edition, valueOption("--open", "DIR", "open this folder"),
             valueOption("--idle", "MS", "return once the window was idle for MS milliseconds")},
            {}},
           {"stop", "stop the dev app started from this checkout", {}, {}},
       }},
      {"lock",
       "The checkout's build lock, shared by parallel builds",
       {
           {"run",
            "run a command while holding the lock",
            {valueOption("--timeout", "S", "give up after waiting S seconds")},
            {}},
           {"status", "who holds the lock, and since when", {}, {}},
       }},
      {"perf",
       "Performance measurements of the dev app",
       {
           {"memory", "sample the processes' memory", {seconds, interval, budget}, {}},
           {"cpu", "sample the processes' CPU use", {seconds, interval, budget}, {}},
           {"startup",
            "time the start of the dev app to its first paint",
            {runs, budget, edition},
            {}},
           {"renders",
            "count UI renders while something happens",
            {seconds, kind,
             valueOption("--watch", "COMPONENT", "count the renders of this component")},
            {}},
           {"latency",
            "time keystroke-to-paint latency",
            {valueOption("--key", "KEY", "the key to press"),
             valueOption("--then", "KEY", "a second key pressed after it"),
             valueOption("--open", "FILE", "open this file first"),
             valueOption("--click", "SELECTOR", "click this element first"),
             valueOption("--settle", "MS", "wait MS milliseconds before each press"), runs, budget},
            {}},
           {"commits",
            "compare a measurement across recent commits",
            {base, limit, kind, runs},
            {}},
           {"remote",
            "time requests through a remote session",
            {valueOption("--rtt", "MS", "add MS milliseconds of simulated round-trip time"), runs,
             seconds},
            {}},
       }},
      {"profile",
       "CPU and heap profiles of the dev app's processes",
       {
           {"pprof",
            "write a pprof profile of the Go side",
            {seconds, outFile},
            {"cpu", "heap", "allocs", "goroutine", "block", "mutex"}},
           {"sample",
            "sample the UI process's stacks",
            {seconds, interval, valueOption("--at", "MARK", "start at this trace mark"), outFile},
            {}},
       }},
      {"log",
       "The dev app's logs",
       {
           {"show",
            "print the log of one process (default the app)",
            {valueOption("--search", "TEXT", "only lines containing TEXT"),
             valueOption("-n", "N", "the last N lines"),
             valueOption("--grep", "REGEX", "only lines matching REGEX")},
            {"app", "host", "gopls"}},
       }},
      {"process",
       "The dev app's processes",
       {
           {"list",
            "list the dev app's processes with their roles",
            {valueOption("--role", "ROLE", "only processes of this role")},
            {}},
       }},
      {"rpc",
       "Raw calls to the dev app's control bridge",
       {
           {"get", "GET an endpoint and print the reply", {timeout}, {}},
           {"post", "POST a JSON body to an endpoint and print the reply", {data, timeout}, {}},
           {"ops", "list the bridge's operations", {}, {}},
           {"call", "call one bridge operation", {data, timeout}, {}},
       }},
      {"action",
       "The UI actions the window registers",
       {
           {"list", "list the registered actions", {}, {}},
           {"run", "run an action by id", {}, {}},
           {"log", "print the actions run recently", {limit}, {}},
       }},
  };
}

}  // namespace

const std::vector<DevNounSpec>& devNouns() {
  static const std::vector<DevNounSpec> nouns = buildDevNouns();
  return nouns;
}

}  // namespace vorn
