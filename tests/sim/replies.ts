// What an instance sends back: the bytes of a reply, scripted by a route or built in, and
// writing them to the connection, whole, in the route's split writes, or piece by piece for a
// large body.

import fs from "node:fs";
import type net from "node:net";
import { BODY_PIECE_BYTES, bodyFrames, buildReply, replyHead, type HeaderList } from "./http";
import type { BuiltinReply } from "./endpoints";
import { headerPairs, isLarge, routeReplaces, type Route } from "./scenario";

export function sleep(ms: number): Promise<void> {
  return new Promise((r) => setTimeout(r, ms));
}

// A reply of JSON text, before its shape (chunks, headers) is applied.
export function jsonReply(status: number, value: unknown): { status: number; headers: HeaderList; body: Buffer } {
  return {
    status,
    headers: [["Content-Type", "application/json; charset=utf-8"]],
    body: Buffer.from(JSON.stringify(value), "utf8"),
  };
}

// A body produced piece by piece as it is sent.
interface LargeBody {
  size: number;
  slice(start: number, end: number): Buffer;
}

const fileBodies = new Map<string, Buffer>();
const filler = Buffer.alloc(BODY_PIECE_BYTES, "x");

function largeBody(route: Route): LargeBody {
  if (route.bodyFile !== undefined) {
    let bytes = fileBodies.get(route.bodyFile);
    if (bytes === undefined) {
      bytes = fs.readFileSync(route.bodyFile);
      fileBodies.set(route.bodyFile, bytes);
    }
    const file = bytes;
    return { size: file.length, slice: (start, end) => file.subarray(start, end) };
  }
  // "xx...x": one shared run of x, with a quote put in a copy at either end.
  const size = route.jsonStringBytes!;
  return {
    size,
    slice(start, end) {
      if (start > 0 && end < size) return filler.subarray(0, end - start);
      const piece = Buffer.from(filler.subarray(0, end - start));
      if (start === 0) piece[0] = 0x22;
      if (end === size) piece[end - start - 1] = 0x22;
      return piece;
    },
  };
}

export type ReplyPlan = Buffer | Iterable<Buffer> | "close" | "hang";

// The reply to a request, as bytes to send (whole, or piece by piece for a large body), or what
// to do instead: drop the connection, or keep it and never answer.
export function replyBytes(route: Route | undefined, builtinReply: BuiltinReply | undefined): ReplyPlan {
  if (route?.action === "close") return "close";
  if (route?.action === "hang") return "hang";
  if (route?.raw !== undefined) return Buffer.from(route.raw, "utf8");
  if (route?.rawBase64 !== undefined) return Buffer.from(route.rawBase64, "base64");
  const shape = {
    reason: route?.reason,
    extraHeaders: headerPairs(route?.headers),
    chunks: route?.chunks,
    chunkEnd: route?.chunkEnd,
    contentLength: route?.contentLength,
  };
  if (route && isLarge(route)) {
    const body = largeBody(route);
    const head = replyHead({ ...shape, status: route.status ?? 200, headers: [["Content-Type", "application/json; charset=utf-8"]] }, body.size);
    return (function* () {
      yield head;
      yield* bodyFrames(body.size, body.slice, route.chunks, route.chunkEnd);
    })();
  }
  let base: { status: number; headers: HeaderList; body: Buffer };
  if (route && routeReplaces(route)) {
    const status = route.status ?? 200;
    if ("json" in route) base = jsonReply(status, route.json);
    else if (route.body !== undefined)
      base = { status, headers: [["Content-Type", "text/plain; charset=utf-8"]], body: Buffer.from(route.body, "utf8") };
    else if (route.bodyBase64 !== undefined)
      base = { status, headers: [["Content-Type", "application/octet-stream"]], body: Buffer.from(route.bodyBase64, "base64") };
    else base = { status, headers: [], body: Buffer.alloc(0) };
  } else {
    base = jsonReply(builtinReply!.status, builtinReply!.json);
  }
  return buildReply({ ...shape, status: base.status, headers: base.headers, body: base.body });
}

function endConnection(sock: net.Socket): Promise<void> {
  return new Promise<void>((resolve) => {
    if (sock.destroyed) return resolve();
    sock.once("close", () => resolve());
    sock.end(() => resolve());
  });
}

// Sends a reply, cut where the route's `writes` say, then ends the connection unless the route
// keeps it open.
export async function send(sock: net.Socket, bytes: Buffer, route: Route | undefined): Promise<void> {
  const segments: Buffer[] = [];
  let pos = 0;
  for (const size of route?.writes ?? []) {
    if (pos >= bytes.length) break;
    segments.push(bytes.subarray(pos, pos + size));
    pos += size;
  }
  if (pos < bytes.length) segments.push(bytes.subarray(pos));
  for (let i = 0; i < segments.length; i++) {
    if (sock.destroyed) return;
    if (i > 0 && route?.writeGapMs) await sleep(route.writeGapMs);
    sock.write(segments[i]);
  }
  if (route?.keepOpen) return;
  await endConnection(sock);
}

// Writes one piece; true once the socket can take more, false when the client has gone.
function writePiece(sock: net.Socket, piece: Buffer): Promise<boolean> {
  if (sock.destroyed) return Promise.resolve(false);
  if (sock.write(piece)) return Promise.resolve(true);
  return new Promise<boolean>((resolve) => {
    const done = (more: boolean) => {
      sock.off("drain", onDrain);
      sock.off("close", onClose);
      resolve(more);
    };
    const onDrain = () => done(true);
    const onClose = () => done(false);
    sock.on("drain", onDrain);
    sock.on("close", onClose);
  });
}

// Sends the pieces as the client takes them, so a large body is never buffered whole; stops
// when the client closes.
export async function sendPieces(sock: net.Socket, pieces: Iterable<Buffer>, route: Route | undefined): Promise<void> {
  let first = true;
  for (const piece of pieces) {
    if (!first && route?.writeGapMs) await sleep(route.writeGapMs);
    first = false;
    if (!(await writePiece(sock, piece))) return;
  }
  if (route?.keepOpen) return;
  await endConnection(sock);
}
