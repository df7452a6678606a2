// `vorn file read` against simulated instances.

import { describe, expect, test } from "bun:test";
import path from "node:path";
import type { Sandbox } from "./harness";
import { byPid, expectSent, pretty, requestLog, useSandbox } from "./support";

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

// Percent-encoding of one path component: every UTF-8 byte outside letters, digits and
// - _ . ! ~ * ' ( ) becomes %XX with upper-case hex digits.
function componentEncoded(text: string): string {
  const safe = /[A-Za-z0-9\-_.!~*'()]/;
  let out = "";
  for (const byte of Buffer.from(text, "utf8")) {
    const ch = String.fromCharCode(byte);
    out += byte < 0x80 && safe.test(ch) ? ch : "%" + byte.toString(16).toUpperCase().padStart(2, "0");
  }
  return out;
}

describe("file read", () => {
  test("missing path", async () => {
    const a = await sb.sim({ id: "a" });
    const r = await sb.run(["file", "read"]);
    expect(r.stderr).toBe("vorn file read: missing path\n");
    expect(r.code).toBe(2);
    expect(requestLog(a)).toEqual([]);
  });

  test("the path goes component-encoded and the reply is printed", async () => {
    const ws = sb.dir("work/app");
    sb.file("work/app/src/a b.go", "package src\n");
    const a = await sb.sim({ id: "a", workspace: ws });
    const r = await sb.run(["file", "read", "src/a b.go"]);
    expect(r.stdout).toBe(pretty({ path: "src/a b.go", content: "package src\n", size: 12 }));
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expectSent(a, "GET", "/read?path=src%2Fa%20b.go");
  });

  test("non-ASCII and reserved characters, byte for byte", async () => {
    const ws = sb.dir("work/app");
    const name = "dïr/ü+&=?#%~(x)'*!é 𝄞.go";
    sb.file(path.join("work/app", name), "x");
    const a = await sb.sim({ id: "a", workspace: ws });
    const r = await sb.run(["file", "read", name]);
    expect(r.code).toBe(0);
    const target = "/read?path=" + componentEncoded(name);
    expect(target).toBe(
      "/read?path=d%C3%AFr%2F%C3%BC%2B%26%3D%3F%23%25~(x)'*!%C3%A9%20%F0%9D%84%9E.go",
    );
    expectSent(a, "GET", target);
    expect(r.stdout).toBe(pretty({ path: name, content: "x", size: 1 }));
  });

  test("an absolute path is sent as typed", async () => {
    const ws = sb.dir("work/app");
    const file = sb.file("work/app/main.go", "m");
    const a = await sb.sim({ id: "a", workspace: ws });
    const r = await sb.run(["file", "read", file]);
    expect(r.code).toBe(0);
    expect(requestLog(a)).toEqual(["GET /instance", "GET /read?path=" + componentEncoded(file)]);
  });

  test("a missing file: the body, exit 1, no message", async () => {
    const a = await sb.sim({ id: "a", workspace: sb.dir("work/app") });
    const r = await sb.run(["file", "read", "nope.go"]);
    expect(r.stdout).toBe('{\n  "error": "no such file: nope.go"\n}\n');
    expect(r.stderr).toBe("");
    expect(r.code).toBe(1);
    expect(requestLog(a)).toEqual(["GET /instance", "GET /read?path=nope.go"]);
  });

  test("every instance by default, with -o json the results wrapper", async () => {
    const sims = byPid(await sb.sims(2, (i) => ({ id: ["a", "b"][i], workspace: sb.dir(`work/w${i}`) })));
    sb.file("work/w0/f.txt", "zero");
    let r = await sb.run(["file", "read", "f.txt"]);
    const rows = sims.map((s) =>
      s.id === "a"
        ? { id: "a", ok: true, body: { path: "f.txt", content: "zero", size: 4 } }
        : { id: "b", ok: false, body: { error: "no such file: f.txt" } },
    );
    expect(r.stdout).toBe(pretty({ results: rows }));
    expect(r.code).toBe(0);
    r = await sb.run(["file", "read", "f.txt", "-i", "a", "-o", "json"]);
    expect(r.stdout).toBe(pretty({ results: rows.filter((x) => x.id === "a") }));
    expect(r.code).toBe(0);
  });

  test("no instances", async () => {
    const r = await sb.run(["file", "read", "x"]);
    expect(r.stderr).toBe("vorn file read: no running instances\n");
    expect(r.code).toBe(1);
  });
});

describe("file read: a reply of 1 GB", () => {
  test("sent without a length, until the instance closes: stops with a clear error after the limit", async () => {
    await sb.sim({ id: "a", routes: [{ method: "GET", path: "/read", jsonStringBytes: 1 << 30, contentLength: false }] });
    const r = await sb.run(["file", "read", "big.log"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn: reply too large: over 256 MiB\n", 1]);
  });
});
