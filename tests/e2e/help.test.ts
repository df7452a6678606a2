// Help pages compared whole against reviewed golden files: one wrong space fails.
import { describe, expect, test } from "bun:test";
import { readFileSync } from "node:fs";
import { join } from "node:path";
import type { Sandbox } from "./harness";
import { useSandbox } from "./support";

const golden = (name: string) => readFileSync(join(import.meta.dir, "golden", `${name}.txt`), "utf8");

const nouns: Record<string, string[]> = {
  instance: ["list", "inspect", "focus", "quit", "prune", "health"],
  workspace: ["open", "show", "tree"],
  file: ["open", "read"],
  command: ["list", "run"],
  diagnostics: ["list"],
  nogo: ["run"],
  search: ["run"],
  test: ["run", "rerun", "cancel", "status"],
  language: ["status", "hover", "definition", "type-definition"],
  server: ["start"],
  remote: ["ssh"],
  doctor: ["check"],
  "shell-command": ["install", "uninstall", "status", "completion"],
};

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh), "file");

describe("top help", () => {
  for (const args of [[], ["help"], ["--help"], ["-h"]]) {
    test(`vorn ${args.join(" ")}`.trim(), async () => {
      const r = await sb.run(args);
      expect(r.stderr).toBe("");
      expect(r.stdout).toBe(golden("help"));
      expect(r.code).toBe(0);
    });
  }

  // Hoisted global flags stand right after the positionals, so after a lone "help" the flag
  // is read as the noun to explain.
  test("a global flag after help is taken as the noun asked about", async () => {
    for (const [args, word] of [[["help", "-a"], "-a"], [["-i", "x", "help"], "-i"]] as const) {
      const r = await sb.run([...args]);
      expect(r.stdout).toBe("");
      expect(r.stderr).toBe(`vorn: unknown command '${word}' (vorn help)\n`);
      expect(r.code).toBe(2);
    }
  });

  test("lists every noun and verb usage", () => {
    const text = golden("help");
    for (const noun of Object.keys(nouns)) expect(text).toContain(`\n\n${noun} \u2014 `);
    expect(text.endsWith("XDG_RUNTIME_DIR  socket root (default: tmpdir)/vorn/<pid>/fs.sock\n")).toBe(true);
  });
});

describe("noun help", () => {
  for (const noun of Object.keys(nouns)) {
    test(`vorn help ${noun} and vorn ${noun} --help`, async () => {
      const a = await sb.run(["help", noun]);
      const b = await sb.run([noun, "--help"]);
      const c = await sb.run([noun, "-h"]);
      for (const r of [a, b, c]) {
        expect(r.stdout).toBe(golden(noun));
        expect(r.stderr).toBe("");
        expect(r.code).toBe(0);
      }
    });
  }
});

describe("verb help", () => {
  for (const [noun, verbs] of Object.entries(nouns)) {
    for (const verb of verbs) {
      test(`vorn ${noun} ${verb} --help`, async () => {
        const r = await sb.run([noun, verb, "--help"]);
        expect(r.stdout).toBe(golden(`${noun}-${verb}`));
        expect(r.stderr).toBe("");
        expect(r.code).toBe(0);
      });
    }
  }

  test("-h after bad flags still prints help", async () => {
    const r = await sb.run(["instance", "list", "--bogus", "--pid", "0", "-h"]);
    expect(r.stdout).toBe(golden("instance-list"));
    expect(r.code).toBe(0);
  });
});

describe("help pages agree with each other", () => {
  test("each noun page is its verb pages without their global blocks", () => {
    for (const [noun, verbs] of Object.entries(nouns)) {
      const page = golden(noun);
      for (const verb of verbs) {
        const verbPage = golden(`${noun}-${verb}`);
        const verbLines = verbPage.slice(0, verbPage.indexOf("\n\nGlobal flags"));
        expect(page).toContain(`\n\n${verbLines}\n\n`);
      }
    }
  });
});
