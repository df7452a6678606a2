// A raw client for the control socket, used by the simulator's own tests and
// by scripts: it sends exactly the bytes it is given (or the bytes the
// command line sends for a request) and returns everything the server wrote.

import net from "node:net";
import { parseReply, type ParsedReply } from "./http";

export interface Exchange {
  bytes: Buffer; // everything received
  closed: boolean; // the server closed the connection
  timedOut: boolean; // gave up waiting for the close
  error?: string; // connect or socket error (e.g. ECONNREFUSED)
}

export interface ExchangeOptions {
  timeoutMs?: number; // default 5000
  halfClose?: boolean; // shut down our sending side after writing
}

// Connects, writes `data`, and reads until the server closes (or the time-out).
export function exchange(sock: string, data: string | Uint8Array, opts: ExchangeOptions = {}): Promise<Exchange> {
  return new Promise((resolve) => {
    const chunks: Buffer[] = [];
    let settled = false;
    const c = net.connect(sock);
    const finish = (closed: boolean, timedOut: boolean, error?: string) => {
      if (settled) return;
      settled = true;
      clearTimeout(timer);
      c.destroy();
      resolve({ bytes: Buffer.concat(chunks), closed, timedOut, error });
    };
    const timer = setTimeout(() => finish(false, true), opts.timeoutMs ?? 5000);
    c.on("connect", () => {
      c.write(typeof data === "string" ? Buffer.from(data, "utf8") : data);
      if (opts.halfClose) c.end();
    });
    c.on("data", (d: Buffer) => chunks.push(d));
    c.on("end", () => finish(true, false));
    c.on("close", () => finish(true, false));
    c.on("error", (e: NodeJS.ErrnoException) => finish(false, false, e.code ?? e.message));
  });
}

// The request bytes exactly as the command line frames them.
export function requestBytes(method: string, target: string, body?: unknown): Buffer {
  let head = `${method} ${target} HTTP/1.1\r\nHost: unix\r\nConnection: close\r\nAccept: */*\r\n`;
  let payload = Buffer.alloc(0);
  if (body !== undefined) {
    payload = Buffer.from(typeof body === "string" ? body : JSON.stringify(body), "utf8");
    head += "Content-Type: application/json\r\n";
  }
  if (body !== undefined || method === "POST") head += `Content-Length: ${payload.length}\r\n`;
  return Buffer.concat([Buffer.from(head + "\r\n", "utf8"), payload]);
}

export interface Reply extends ParsedReply {
  text: string;
  json: unknown; // undefined when the body is not JSON
}

// One request/reply exchange; throws when there is no complete reply.
export async function request(sock: string, method: string, target: string, body?: unknown, opts: ExchangeOptions = {}): Promise<Reply> {
  const ex = await exchange(sock, requestBytes(method, target, body), opts);
  if (ex.error) throw new Error(`connect ${sock}: ${ex.error}`);
  if (ex.timedOut) throw new Error(`no reply from ${sock} within ${opts.timeoutMs ?? 5000} ms`);
  const r = parseReply(ex.bytes);
  const text = r.body.toString("utf8");
  let json: unknown;
  try {
    json = JSON.parse(text);
  } catch {
    json = undefined;
  }
  return { ...r, text, json };
}
