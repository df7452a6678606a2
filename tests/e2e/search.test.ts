// `vorn search run` against simulated instances: the query, the grep-style listing, the summary
// on stderr and the exit status.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import { vornBin, type Route, type Sandbox, type Sim } from "./harness";
import { byPid, calls, DASH, expectCalls, instanceTable, useSandbox } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

// The one search request the instance received, checked byte for byte.
function expectSearch(s: Sim, target: string): void {
  expectCalls(s, [["GET", target]]);
}

// A workspace with a few Go files.
function workspace(): string {
  const ws = sb.dir("work/app");
  sb.file("work/app/a.go", "package app\n\nfunc Foo() {}\n\n// foo and FOO and food\n");
  sb.file("work/app/pkg/b.go", "package pkg\n\nvar x = Foo()\n");
  sb.file("work/app/vendor/v.go", "package v // foo\n");
  sb.file("work/app/notes.txt", "no match here\n");
  return ws;
}

// A simulated instance whose /search answers with the given reply.
async function scripted(route: Partial<Route>): Promise<Sim> {
  return sb.sim({ id: "s", routes: [{ method: "GET", path: "/search", ...route } as Route] });
}

describe("search run: usage", () => {
  test("no pattern fails before any socket is touched", async () => {
    const s = await sb.sim({ id: "s", workspace: workspace() });
    const r = await sb.run(["search", "run"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn search run: missing pattern\n", 2]);
    const flagsOnly = await sb.run(["search", "run", "--case", "--max", "3"]);
    expect([flagsOnly.stdout, flagsOnly.stderr, flagsOnly.code]).toEqual(["", "vorn search run: missing pattern\n", 2]);
    expect(s.requests()).toEqual([]);
  });

  test("no pattern with no instance at all is still the usage error", async () => {
    const r = await sb.run(["search", "run"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn search run: missing pattern\n", 2]);
  });

  test("no running instance", async () => {
    const r = await sb.run(["search", "run", "foo"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn search run: no running instance (vorn workspace open <dir> first)\n", 1]);
  });

  test("two instances and no selector: the resolver's ambiguity error", async () => {
    const sims = byPid(await sb.sims(2, (i) => ({ id: `two-${i}` })));
    const r = await sb.run(["search", "run", "foo"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(instanceTable(sims) + `\nvorn: 2 instances running ${DASH} pass -i ID (see vorn instance list)\n`);
    expect(r.code).toBe(2);
    for (const s of sims) expect(calls(s)).toEqual([]);
  });

  test("-i picks one of several", async () => {
    const ws = workspace();
    const [a, b] = await Promise.all([sb.sim({ id: "a", workspace: ws }), sb.sim({ id: "b", workspace: ws })]);
    const r = await sb.run(["search", "run", "Foo()", "--case", "-i", "b"]);
    expect(r.stdout).toBe("a.go:3:6: func Foo() {}\npkg/b.go:3:9: var x = Foo()\n");
    expect(r.stderr).toBe("2 matches in 2 files (sim)\n");
    expect(r.code).toBe(0);
    expect(calls(a)).toEqual([]);
    expectSearch(b, "/search?q=Foo%28%29&case=1");
  });

  test("-a is not valid: search needs exactly one instance", async () => {
    const s = await sb.sim({ id: "s", workspace: workspace() });
    const r = await sb.run(["search", "run", "foo", "-a"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn: --all is not valid for this command\n", 1]);
    expect(calls(s)).toEqual([]);
  });
});

describe("search run: the query", () => {
  test("a plain pattern", async () => {
    const s = await sb.sim({ id: "s", workspace: workspace() });
    const r = await sb.run(["search", "run", "foo"]);
    expect(r.stdout).toBe(
      [
        "a.go:3:6: func Foo() {}",
        "a.go:5:4: // foo and FOO and food",
        "a.go:5:12: // foo and FOO and food",
        "a.go:5:20: // foo and FOO and food",
        "pkg/b.go:3:9: var x = Foo()",
        "vendor/v.go:1:14: package v // foo",
        "",
      ].join("\n"),
    );
    expect(r.stderr).toBe("6 matches in 3 files (sim)\n");
    expect(r.code).toBe(0);
    expectSearch(s, "/search?q=foo");
  });

  test("--case --word: q, then case, then word", async () => {
    const s = await sb.sim({ id: "s", workspace: workspace() });
    const r = await sb.run(["search", "run", "foo", "--case", "--word"]);
    expect(r.stdout).toBe("a.go:5:4: // foo and FOO and food\nvendor/v.go:1:14: package v // foo\n");
    expect(r.stderr).toBe("2 matches in 2 files (sim)\n");
    expect(r.code).toBe(0);
    expectSearch(s, "/search?q=foo&case=1&word=1");
  });

  test("every option, typed in another order, goes out in the fixed order", async () => {
    const s = await sb.sim({ id: "s", workspace: workspace() });
    const r = await sb.run([
      "search", "run", "--max", "5", "--exclude", "vendor/", "--word", "f[o]o", "--include", "*.go, pkg/", "--regex", "--case",
    ]);
    expect(r.stdout).toBe("a.go:5:4: // foo and FOO and food\n");
    expect(r.stderr).toBe("1 matches in 1 files (sim)\n");
    expect(r.code).toBe(0);
    expectSearch(s, "/search?q=f%5Bo%5Do&regex=1&case=1&word=1&include=*.go%2C+pkg%2F&exclude=vendor%2F&max=5");
  });

  test("inline option values are passed through unparsed", async () => {
    const s = await sb.sim({ id: "s", workspace: workspace() });
    const r = await sb.run(["search", "run", "foo", "--max=ten", "--include=*.go"]);
    // The instance judges the cap; its 400 comes back as the error.
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn search run: max must be a non-negative integer\n", 1]);
    expectSearch(s, "/search?q=foo&include=*.go&max=ten");
  });

  test("a switch given twice is sent once", async () => {
    const s = await sb.sim({ id: "s", workspace: workspace() });
    const r = await sb.run(["search", "run", "FOO", "--case", "--case"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["a.go:5:12: // foo and FOO and food\n", "1 matches in 1 files (sim)\n", 0]);
    expectSearch(s, "/search?q=FOO&case=1");
  });

  test("a switch given a value is a usage error", async () => {
    const s = await sb.sim({ id: "s", workspace: workspace() });
    const r = await sb.run(["search", "run", "foo", "--regex=1"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn: --regex takes no value\n", 2]);
    expect(s.requests()).toEqual([]);
  });

  test("search run -- --regex searches for the literal --regex", async () => {
    const ws = sb.dir("work/flags");
    sb.file("work/flags/README", "use --regex for patterns\n--case too\n");
    const s = await sb.sim({ id: "s", workspace: ws });
    const r = await sb.run(["search", "run", "--", "--regex"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["README:1:5: use --regex for patterns\n", "1 matches in 1 files (sim)\n", 0]);
    expectSearch(s, "/search?q=--regex");
  });

  test("a pattern of any bytes is encoded, not rejected", async () => {
    const ws = sb.dir("work/bytes");
    const pattern = `a b&c=d+e%f"g'h é~*`;
    sb.file("work/bytes/t.txt", `x ${pattern} y\n`);
    const s = await sb.sim({ id: "s", workspace: ws });
    const r = await sb.run(["search", "run", pattern]);
    expect([r.stdout, r.stderr, r.code]).toEqual([`t.txt:1:3: x ${pattern} y\n`, "1 matches in 1 files (sim)\n", 0]);
    expectSearch(s, "/search?q=a+b%26c%3Dd%2Be%25f%22g%27h+%C3%A9%7E*");
    expect(calls(s)[0].query).toEqual([["q", pattern]]);
  });

  test("unicode paths and patterns", async () => {
    const ws = sb.dir("work/ünï");
    sb.file("work/ünï/dír é/ü.go", "// héllo wörld 😀 wörld\n");
    sb.file("work/ünï/日本.txt", "wörld\n");
    const s = await sb.sim({ id: "s", workspace: ws });
    const r = await sb.run(["search", "run", "wörld", "--include", "*.go,日本.txt"]);
    expect(r.stdout).toBe("dír é/ü.go:1:10: // héllo wörld 😀 wörld\ndír é/ü.go:1:19: // héllo wörld 😀 wörld\n日本.txt:1:1: wörld\n");
    expect(r.stderr).toBe("3 matches in 2 files (sim)\n");
    expect(r.code).toBe(0);
    expectSearch(s, "/search?q=w%C3%B6rld&include=*.go%2C%E6%97%A5%E6%9C%AC.txt");
  });

  test("a pattern beginning with a dash after the verb is a flag, not a pattern", async () => {
    const s = await sb.sim({ id: "s", workspace: workspace() });
    const r = await sb.run(["search", "run", "--regex"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn search run: missing pattern\n", 2]);
    expect(s.requests()).toEqual([]);
  });

  test("a negative number is a pattern", async () => {
    const ws = sb.dir("work/n");
    sb.file("work/n/n.txt", "x = -1\n");
    const s = await sb.sim({ id: "s", workspace: ws });
    const r = await sb.run(["search", "run", "-1"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["n.txt:1:5: x = -1\n", "1 matches in 1 files (sim)\n", 0]);
    expectSearch(s, "/search?q=-1");
  });
});

describe("search run: the reply", () => {
  test("nothing matched: the summary, then exit 1 with no error text", async () => {
    const s = await sb.sim({ id: "s", workspace: workspace() });
    const r = await sb.run(["search", "run", "absent-everywhere"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "0 matches in 0 files (sim)\n", 1]);
    expectSearch(s, "/search?q=absent-everywhere");
  });

  test("the cap cut the results: the summary says so", async () => {
    const s = await sb.sim({ id: "s", workspace: workspace() });
    const r = await sb.run(["search", "run", "foo", "--max", "2"]);
    expect(r.stdout).toBe("a.go:3:6: func Foo() {}\na.go:5:4: // foo and FOO and food\n");
    expect(r.stderr).toBe(`2 matches in 1 files (sim) ${DASH} limit hit, results truncated\n`);
    expect(r.code).toBe(0);
    expectSearch(s, "/search?q=foo&max=2");
  });

  test("limitHit false or not a boolean adds nothing", async () => {
    for (const limitHit of [false, "true", 1, null]) {
      const s = await scripted({ json: { files: [], matchCount: 3, fileCount: 1, engine: "ripgrep", limitHit } });
      const r = await sb.run(["search", "run", "x"]);
      expect([r.stdout, r.stderr, r.code]).toEqual(["", "3 matches in 1 files (ripgrep)\n", 0]);
      await s.stop();
    }
  });

  test("a match without preview prints undefined; line and col as received", async () => {
    await scripted({
      json: {
        files: [{ path: "a.go", matches: [{ line: 7, col: 3 }, { line: 0, col: 0, preview: "zero-based?" }] }],
        matchCount: 2,
        fileCount: 1,
        engine: "ripgrep",
      },
    });
    const r = await sb.run(["search", "run", "x"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["a.go:7:3: undefined\na.go:0:0: zero-based?\n", "2 matches in 1 files (ripgrep)\n", 0]);
  });

  test("wrongly typed fields print what the rendering rules give", async () => {
    await scripted({
      json: {
        files: [
          { path: "obj.go", matches: "not a list" },
          { path: "lines.go", matches: [{ line: "7", col: 2.5, preview: null }, { line: true, col: [1, "x"], preview: { a: 1 } }] },
          { path: 42, matches: [{ line: 1e21, col: -0.5, preview: 12 }] },
          "not an object",
          { matches: [{}] },
        ],
        matchCount: "5",
        fileCount: { n: 3 },
        engine: ["sim"],
        limitHit: "yes",
      },
    });
    const r = await sb.run(["search", "run", "x"]);
    expect(r.stdout).toBe(
      'lines.go:7:2.5: null\nlines.go:true:[1,"x"]: {"a":1}\n42:1e+21:-0.5: 12\nundefined:undefined:undefined: undefined\n',
    );
    expect(r.stderr).toBe('5 matches in {"n":3} files (["sim"])\n');
    // A matchCount that is not a number counts as nothing matched.
    expect(r.code).toBe(1);
  });

  test('"files" an object prints no lines', async () => {
    await scripted({ json: { files: { path: "a.go", matches: [{ line: 1, col: 1, preview: "p" }] }, matchCount: 1, fileCount: 1, engine: "rg" } });
    const r = await sb.run(["search", "run", "x"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "1 matches in 1 files (rg)\n", 0]);
  });

  test("missing counts print undefined and exit 1", async () => {
    await scripted({ json: { files: [{ path: "a.go", matches: [{ line: 1, col: 2, preview: "p" }] }] } });
    const r = await sb.run(["search", "run", "x"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["a.go:1:2: p\n", "undefined matches in undefined files (undefined)\n", 1]);
  });

  test("a key given twice: the last one is read", async () => {
    await scripted({
      body: '{"files":[{"path":"a.go","path":"b.go","matches":[{"line":1,"col":1,"preview":"x","line":9}]}],"matchCount":0,"matchCount":1,"fileCount":1,"engine":"rg"}',
    });
    const r = await sb.run(["search", "run", "x"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["b.go:9:1: x\n", "1 matches in 1 files (rg)\n", 0]);
  });

  test("a 500 with an error: vorn search run: boom", async () => {
    const s = await scripted({ status: 500, json: { error: "boom" } });
    const r = await sb.run(["search", "run", "x"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn search run: boom\n", 1]);
    expectSearch(s, "/search?q=x");
  });

  test("a 404 without an error: the status number", async () => {
    await scripted({ status: 404, json: { message: "gone" } });
    const r = await sb.run(["search", "run", "x"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn search run: 404\n", 1]);
  });

  test("an error that is not a string counts as none", async () => {
    await scripted({ status: 503, json: { error: { why: "busy" } } });
    const r = await sb.run(["search", "run", "x"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn search run: 503\n", 1]);
  });

  test("a failing reply that still lists files prints them, but no summary", async () => {
    await scripted({ status: 500, json: { error: "partial", files: [{ path: "a.go", matches: [{ line: 1, col: 1, preview: "p" }] }], matchCount: 1 } });
    const r = await sb.run(["search", "run", "x"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["a.go:1:1: p\n", "vorn search run: partial\n", 1]);
  });

  test("a transport failure", async () => {
    await scripted({ raw: "this is not HTTP" });
    const r = await sb.run(["search", "run", "x"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn search run: malformed HTTP reply\n", 1]);
  });
});

describe("search run -o json", () => {
  test("prints the body and nothing on stderr", async () => {
    const s = await sb.sim({ id: "s", workspace: workspace() });
    const r = await sb.run(["search", "run", "Foo", "--case", "-o", "json"]);
    expect(r.stdout).toBe(
      `{
  "files": [
    {
      "path": "a.go",
      "matches": [
        {
          "line": 3,
          "col": 6,
          "preview": "func Foo() {}"
        }
      ]
    },
    {
      "path": "pkg/b.go",
      "matches": [
        {
          "line": 3,
          "col": 9,
          "preview": "var x = Foo()"
        }
      ]
    }
  ],
  "matchCount": 2,
  "fileCount": 2,
  "engine": "sim",
  "limitHit": false
}
`,
    );
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expectSearch(s, "/search?q=Foo&case=1");
  });

  test("nothing matched still exits 1, silently", async () => {
    await sb.sim({ id: "s", workspace: workspace() });
    const r = await sb.run(["search", "run", "absent", "-o", "json"]);
    expect(r.stdout).toBe('{\n  "files": [],\n  "matchCount": 0,\n  "fileCount": 0,\n  "engine": "sim",\n  "limitHit": false\n}\n');
    expect([r.stderr, r.code]).toEqual(["", 1]);
  });

  test("a failing reply: the body, then the error as JSON", async () => {
    await scripted({ status: 500, json: { error: "boom" } });
    const r = await sb.run(["search", "run", "x", "-o", "json"]);
    expect(r.stdout).toBe('{\n  "error": "boom"\n}\n');
    expect(JSON.parse(r.stderr)).toEqual({ error: "vorn search run: boom", code: 1 });
    expect(r.code).toBe(1);
  });
});

describe("search run: 10,000 matches", () => {
  // Two files so that the listing also shows file order: 4,000 lines in a.txt, 6,000 in b/c.txt.
  function bigWorkspace(): { ws: string; expected: string } {
    const ws = sb.dir("work/big");
    const a = Array.from({ length: 4000 }, (_, i) => `needle a${i + 1}`);
    const c = Array.from({ length: 6000 }, (_, i) => `  needle c${i + 1}`);
    sb.file("work/big/a.txt", a.join("\n") + "\n");
    sb.file("work/big/b/c.txt", c.join("\n") + "\n");
    const expected =
      a.map((line, i) => `a.txt:${i + 1}:1: ${line}\n`).join("") + c.map((line, i) => `b/c.txt:${i + 1}:3: ${line}\n`).join("");
    return { ws, expected };
  }

  test("every line, in order", async () => {
    const { ws, expected } = bigWorkspace();
    const s = await sb.sim({ id: "s", workspace: ws });
    const r = await sb.run(["search", "run", "needle"]);
    expect(r.stdout.length).toBe(expected.length);
    expect(r.stdout).toBe(expected);
    expect(r.stderr).toBe("10000 matches in 2 files (sim)\n");
    expect(r.code).toBe(0);
    expectSearch(s, "/search?q=needle");
  });

  const strace = Bun.which("strace");
  test.skipIf(!strace)("the listing is one write to stdout", async () => {
    const { ws, expected } = bigWorkspace();
    sb.file("work/big/d.txt", "needle beyond the cap\n");
    await sb.sim({ id: "s", workspace: ws });
    const log = sb.path("tmp/strace.log");
    const r = await sb.run(["-f", "-e", "trace=write", "-e", "signal=none", "-o", log, vornBin(), "search", "run", "needle"], {
      bin: strace!,
    });
    expect(r.stdout).toBe(expected);
    expect(r.stderr).toBe(`10000 matches in 2 files (sim) ${DASH} limit hit, results truncated\n`);
    expect(r.code).toBe(0);
    const writes = fs
      .readFileSync(log, "utf8")
      .split("\n")
      .filter((line) => /\bwrite\(1,/.test(line));
    expect(writes.length).toBe(1);
    expect(writes[0]).toMatch(new RegExp(`= ${Buffer.byteLength(expected)}$`));
  });
});

describe("search run: a reply of 1 GB", () => {
  test("stops with a clear error after the limit; nothing is listed", async () => {
    await sb.sim({ id: "a", routes: [{ method: "GET", path: "/search", jsonStringBytes: 1 << 30 }] });
    const message = "vorn search run: reply too large: over 256 MiB";
    const r = await sb.run(["search", "run", "needle"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", message + "\n", 1]);
    const j = await sb.run(["search", "run", "needle", "-o", "json"]);
    expect([j.stdout, j.stderr, j.code]).toEqual(["", JSON.stringify({ error: message, code: 1 }) + "\n", 1]);
  });
});
