// The record of what an instance received: with --record, one JSON line per request appended
// to a file, a whole request or the bytes of one the client gave up on.

import fs from "node:fs";
import type { ParsedRequest } from "./http";

export class Recorder {
  private fd: number | undefined;
  private seq = 0;

  /** Appends to `file` from now on; throws when it cannot be opened. */
  open(file: string): void {
    this.fd = fs.openSync(file, "a");
  }

  /** Records a request (or, with no request, the `partial` bytes that came) and the route that answered it. */
  record(conn: number, req: ParsedRequest | undefined, partial: Buffer | undefined, route: number | null): void {
    if (this.fd === undefined) return;
    const seq = ++this.seq;
    let rec: Record<string, unknown>;
    if (req === undefined) {
      rec = { seq, conn, time: Date.now(), complete: false, rawBase64: partial!.toString("base64"), rawText: partial!.toString("utf8") };
    } else {
      const q = req.target.indexOf("?");
      const bodyText = req.body.toString("utf8");
      rec = {
        seq,
        conn,
        time: Date.now(),
        complete: req.error === undefined,
        error: req.error,
        method: req.method,
        target: req.target,
        path: q < 0 ? req.target : req.target.slice(0, q),
        query: q < 0 ? [] : [...new URLSearchParams(req.target.slice(q + 1))],
        version: req.version,
        requestLine: req.requestLine,
        headerLines: req.headerLines,
        headers: req.headers,
        lineEnding: req.lineEnding,
        bodyBase64: req.body.toString("base64"),
        bodyText,
        rawBase64: req.raw.toString("base64"),
        extraBase64: req.extra.toString("base64"),
        route,
      };
    }
    // Synchronous, so a test that reads after the client exited sees it.
    fs.writeSync(this.fd, JSON.stringify(rec) + "\n");
  }
}
