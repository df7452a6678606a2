// `vorn language status|hover|definition|type-definition` against simulated instances.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import type { Sandbox } from "./harness";
import { byPid, expectCalls, pretty, useSandbox } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

const VERBS: [string, string][] = [
  ["hover", "/api/languageHover"],
  ["definition", "/api/languageDefinition"],
  ["type-definition", "/api/languageTypeDefinition"],
];

const range = (line: number, character: number) => ({ start: { line, character }, end: { line, character: character + 1 } });
const hoverReply = (p: string, line: number, character: number) => ({
  contents: { kind: "markdown", value: `sim hover at ${p}:${line}:${character}` },
  range: range(line, character),
});

describe("language status", () => {
  test("one instance: its status", async () => {
    const s = await sb.sim({ id: "s" });
    const r = await sb.run(["language", "status"]);
    expect([r.stdout, r.stderr, r.code]).toEqual([pretty({ languageId: "go", ready: true, detail: "gopls v0.16.2" }), "", 0]);
    expectCalls(s, [["GET", "/language/status"]]);
  });

  test("two instances and no selector: both replies", async () => {
    const sims = byPid(await sb.sims(2, (i) => ({ id: `l-${i}`, language: { languageId: "go", ready: i === 0, detail: `gopls #${i}` } })));
    const r = await sb.run(["language", "status"]);
    expect(r.stdout).toBe(
      pretty({
        results: sims.map((s) => ({ id: s.id, ok: true, body: { languageId: "go", ready: s.id === "l-0", detail: `gopls #${s.id.slice(2)}` } })),
      }),
    );
    expect([r.stderr, r.code]).toEqual(["", 0]);
    for (const s of sims) expectCalls(s, [["GET", "/language/status"]]);
  });

  test("no instances", async () => {
    const r = await sb.run(["language", "status"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn language status: no running instances\n", 1]);
  });
});

describe("language position queries", () => {
  test("hover main.go 9 4: path, line and character, in that order", async () => {
    const s = await sb.sim({ id: "s", workspace: sb.dir("work/app") });
    const r = await sb.run(["language", "hover", "main.go", "9", "4"]);
    expect([r.stdout, r.stderr, r.code]).toEqual([pretty(hoverReply("main.go", 9, 4)), "", 0]);
    expectCalls(s, [["POST", "/api/languageHover", '{"path":"main.go","line":9,"character":4}']]);
  });

  test("each verb posts to its endpoint; the path goes as typed", async () => {
    const ws = sb.dir("work/app");
    const s = await sb.sim({ id: "s", workspace: ws });
    for (const [verb] of VERBS) {
      const r = await sb.run(["language", verb, "./pkg/../a.go", "0", "0"]);
      expect([r.stderr, r.code]).toEqual(["", 0]);
      if (verb !== "hover") expect(r.stdout).toBe(pretty([{ uri: `file://${ws}/a.go`, range: range(0, 0) }]));
    }
    expectCalls(
      s,
      VERBS.map(([, endpoint]) => ["POST", endpoint, '{"path":"./pkg/../a.go","line":0,"character":0}'] as [string, string, string]),
    );
  });

  test("a unicode path is sent as typed, in UTF-8", async () => {
    const s = await sb.sim({ id: "s", workspace: sb.dir("work/app") });
    const r = await sb.run(["language", "hover", "ünï/日本 é.go", "1", "2"]);
    expect([r.stdout, r.stderr, r.code]).toEqual([pretty(hoverReply("ünï/日本 é.go", 1, 2)), "", 0]);
    expectCalls(s, [["POST", "/api/languageHover", '{"path":"ünï/日本 é.go","line":1,"character":2}']]);
  });

  test("fewer than three arguments: the verb's needs message, before any instance is contacted", async () => {
    const s = await sb.sim({ id: "s" });
    for (const [verb] of VERBS) {
      for (const args of [[], ["main.go"], ["main.go", "9"]]) {
        const r = await sb.run(["language", verb, ...args]);
        expect([r.stdout, r.stderr, r.code]).toEqual(["", `vorn language ${verb}: needs <path> <line> <char> (0-based)\n`, 2]);
      }
    }
    expect(s.requests()).toEqual([]);
  });

  test("not integers: the verb's must-be-integers message", async () => {
    const s = await sb.sim({ id: "s" });
    const cases = [
      ["1", "x"],
      ["3.0", "1"],
      [" 3", "1"],
      ["3 ", "1"],
      ["", "1"],
      ["1", ""],
      ["+-3", "1"],
      ["0x1", "1"],
      ["1e3", "1"],
      ["+", "1"],
      ["-", "1"],
      ["٣", "1"],
      ["9223372036854775808", "0"],
      ["0", "-9223372036854775809"],
      ["99999999999999999999999", "0"],
    ];
    for (const [line, character] of cases) {
      const r = await sb.run(["language", "type-definition", "a.go", line, character]);
      expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn language type-definition: <line> and <char> must be integers (0-based)\n", 2]);
    }
    expect(s.requests()).toEqual([]);
  });

  test("+3 is read as 3; -1 is sent as -1 and the instance judges it", async () => {
    const s = await sb.sim({ id: "s" });
    const plus = await sb.run(["language", "hover", "a.go", "+3", "+0"]);
    expect([plus.stdout, plus.stderr, plus.code]).toEqual([pretty(hoverReply("a.go", 3, 0)), "", 0]);
    const minus = await sb.run(["language", "definition", "a.go", "-1", "4"]);
    // The instance refuses a negative position: its body is printed, then exit 1 without more text.
    expect([minus.stdout, minus.stderr, minus.code]).toEqual(['{\n  "error": "position out of range"\n}\n', "", 1]);
    const zeros = await sb.run(["language", "hover", "a.go", "007", "-0"]);
    expect(zeros.code).toBe(0);
    expectCalls(s, [
      ["POST", "/api/languageHover", '{"path":"a.go","line":3,"character":0}'],
      ["POST", "/api/languageDefinition", '{"path":"a.go","line":-1,"character":4}'],
      ["POST", "/api/languageHover", '{"path":"a.go","line":7,"character":0}'],
    ]);
  });

  test("the largest 64-bit values are accepted and go out as JSON numbers", async () => {
    const s = await sb.sim({ id: "s" });
    const max = await sb.run(["language", "hover", "a.go", "9223372036854775807", "9007199254740993"]);
    // The simulator echoes the position back; numbers are doubles on both sides.
    expect(max.stdout).toBe(
      [
        "{",
        '  "contents": {',
        '    "kind": "markdown",',
        '    "value": "sim hover at a.go:9223372036854776000:9007199254740992"',
        "  },",
        '  "range": {',
        '    "start": {',
        '      "line": 9223372036854775808,',
        '      "character": 9007199254740992',
        "    },",
        '    "end": {',
        '      "line": 9223372036854775808,',
        '      "character": 9007199254740992',
        "    }",
        "  }",
        "}",
        "",
      ].join("\n"),
    );
    expect([max.stderr, max.code]).toEqual(["", 0]);
    const min = await sb.run(["language", "hover", "a.go", "0", "-9223372036854775808"]);
    expect([min.stdout, min.stderr, min.code]).toEqual(['{\n  "error": "position out of range"\n}\n', "", 1]);
    expectCalls(s, [
      ["POST", "/api/languageHover", '{"path":"a.go","line":9223372036854775808,"character":9007199254740992}'],
      ["POST", "/api/languageHover", '{"path":"a.go","line":0,"character":-9223372036854775808}'],
    ]);
  });

  test("extra arguments are ignored", async () => {
    const s = await sb.sim({ id: "s" });
    const r = await sb.run(["language", "hover", "a.go", "1", "2", "extra", "3.5"]);
    expect([r.stdout, r.stderr, r.code]).toEqual([pretty(hoverReply("a.go", 1, 2)), "", 0]);
    expectCalls(s, [["POST", "/api/languageHover", '{"path":"a.go","line":1,"character":2}']]);
  });

  test("two instances and no selector: every instance is asked", async () => {
    const sims = byPid(await sb.sims(2, (i) => ({ id: `q-${i}` })));
    const r = await sb.run(["language", "hover", "a.go", "1", "2"]);
    expect(r.stdout).toBe(pretty({ results: sims.map((s) => ({ id: s.id, ok: true, body: hoverReply("a.go", 1, 2) })) }));
    expect([r.stderr, r.code]).toEqual(["", 0]);
    for (const s of sims) expectCalls(s, [["POST", "/api/languageHover", '{"path":"a.go","line":1,"character":2}']]);
  });

  test("several instances with one refusing: the rows say so and the command succeeds", async () => {
    const [a, b] = byPid(await sb.sims(2, (i) => ({ id: `r-${i}` })));
    await b.addRoute({ method: "POST", path: "/api/languageDefinition", status: 503, json: { error: "gopls not ready" } });
    const r = await sb.run(["language", "definition", "/abs/a.go", "1", "2", "-a"]);
    expect(r.stdout).toBe(
      pretty({
        results: [
          { id: a.id, ok: true, body: [{ uri: "file:///abs/a.go", range: range(1, 2) }] },
          { id: b.id, ok: false, body: { error: "gopls not ready" } },
        ],
      }),
    );
    expect([r.stderr, r.code]).toEqual(["", 0]);
  });

  test("-i narrows; -o json wraps one reply", async () => {
    const [a, b] = byPid(await sb.sims(2, (i) => ({ id: `n-${i}` })));
    const r = await sb.run(["language", "hover", "a.go", "1", "2", "-i", b.id, "-o", "json"]);
    expect([r.stdout, r.stderr, r.code]).toEqual([pretty({ results: [{ id: b.id, ok: true, body: hoverReply("a.go", 1, 2) }] }), "", 0]);
    expectCalls(a, []);
    expectCalls(b, [["POST", "/api/languageHover", '{"path":"a.go","line":1,"character":2}']]);
  });

  test("no instances: the read error with the verb's label", async () => {
    for (const [verb] of VERBS) {
      const r = await sb.run(["language", verb, "a.go", "1", "2"]);
      expect([r.stdout, r.stderr, r.code]).toEqual(["", `vorn language ${verb}: no running instances\n`, 1]);
    }
  });
});
