// HTTP/1.1 framing for the simulated instance and its test clients: an
// incremental request parser that keeps every byte it saw, a reply builder
// that can produce well-formed, chunked or deliberately broken replies, and a
// reply parser for the tests' raw client.

export type HeaderList = [string, string][];

export interface ParsedRequest {
  method: string;
  target: string;
  version: string;
  requestLine: string;
  headerLines: string[];
  headers: HeaderList;
  lineEnding: "\r\n" | "\n";
  body: Buffer;
  // Every byte of the request, from the request line to the end of the body.
  raw: Buffer;
  // Bytes that arrived after the end of the body (a well-behaved client sends none).
  extra: Buffer;
  // Set when the request could not be understood; the server answers 400 and closes.
  error?: string;
}

export const MAX_HEADER_BYTES = 64 * 1024;
export const MAX_BODY_BYTES = 64 * 1024 * 1024;

// Grows by doubling so that a large request body costs linear time.
export class ByteBuffer {
  private buf = Buffer.alloc(4096);
  length = 0;

  append(chunk: Uint8Array): void {
    if (this.length + chunk.length > this.buf.length) {
      let cap = this.buf.length * 2;
      while (cap < this.length + chunk.length) cap *= 2;
      const next = Buffer.alloc(cap);
      this.buf.copy(next, 0, 0, this.length);
      this.buf = next;
    }
    this.buf.set(chunk, this.length);
    this.length += chunk.length;
  }

  view(): Buffer {
    return this.buf.subarray(0, this.length);
  }
}

export function headerValue(headers: HeaderList, name: string): string | undefined {
  const want = name.toLowerCase();
  let found: string | undefined;
  for (const [k, v] of headers) if (k.toLowerCase() === want) found = v;
  return found;
}

// Finds the end of the header block: a blank line ending in CRLF CRLF, or in a
// bare LF LF from a sloppy client (recorded as such so tests can notice).
function findHeaderEnd(buf: Buffer): { at: number; sepLen: number; eol: "\r\n" | "\n" } | undefined {
  const crlf = buf.indexOf("\r\n\r\n");
  const lf = buf.indexOf("\n\n");
  if (crlf < 0 && lf < 0) return undefined;
  if (lf >= 0 && (crlf < 0 || lf < crlf)) return { at: lf, sepLen: 2, eol: "\n" };
  return { at: crlf, sepLen: 4, eol: "\r\n" };
}

// Decodes a chunked body that starts at `from`. Returns undefined while more
// bytes are needed, or the decoded body and the offset just past it.
function dechunkRequest(buf: Buffer, from: number): { body: Buffer; end: number } | { error: string } | undefined {
  const parts: Buffer[] = [];
  let pos = from;
  let total = 0;
  for (;;) {
    const eol = buf.indexOf("\r\n", pos);
    if (eol < 0) return undefined;
    const sizeText = buf.toString("latin1", pos, eol).split(";")[0].trim();
    if (!/^[0-9a-fA-F]+$/.test(sizeText)) return { error: "bad chunk size" };
    const size = parseInt(sizeText, 16);
    pos = eol + 2;
    if (size === 0) {
      // Skip optional trailers up to the blank line.
      for (;;) {
        const t = buf.indexOf("\r\n", pos);
        if (t < 0) return undefined;
        if (t === pos) return { body: Buffer.concat(parts), end: t + 2 };
        pos = t + 2;
      }
    }
    total += size;
    if (total > MAX_BODY_BYTES) return { error: "body too large" };
    if (buf.length < pos + size + 2) return undefined;
    parts.push(buf.subarray(pos, pos + size));
    pos += size + 2;
  }
}

// Tries to parse one request from the bytes received so far. Returns
// undefined while the request is still incomplete.
export function parseRequest(buf: Buffer): ParsedRequest | undefined {
  const end = findHeaderEnd(buf);
  if (!end) {
    if (buf.length > MAX_HEADER_BYTES) return malformed(buf, "header too large");
    return undefined;
  }
  const headText = buf.toString("utf8", 0, end.at);
  const lines = headText.split(/\r?\n/);
  const requestLine = lines[0];
  const headerLines = lines.slice(1);
  const headers: HeaderList = [];
  for (const line of headerLines) {
    const colon = line.indexOf(":");
    if (colon <= 0) {
      headers.push([line, ""]);
      continue;
    }
    headers.push([line.slice(0, colon), line.slice(colon + 1).trim()]);
  }
  const parts = requestLine.split(" ");
  const method = parts[0] ?? "";
  const target = parts[1] ?? "";
  const version = parts[2] ?? "";
  const bodyStart = end.at + end.sepLen;
  const base = { method, target, version, requestLine, headerLines, headers, lineEnding: end.eol };

  let body: Buffer;
  let bodyEnd: number;
  let error: string | undefined;
  if (parts.length !== 3 || method === "" || target === "" || !version.startsWith("HTTP/")) {
    error = "malformed request line";
  }
  const te = headerValue(headers, "transfer-encoding");
  const cl = headerValue(headers, "content-length");
  if (!error && te !== undefined && te.toLowerCase() === "chunked") {
    const r = dechunkRequest(buf, bodyStart);
    if (r === undefined) {
      if (buf.length - bodyStart > MAX_BODY_BYTES) error = "body too large";
      else return undefined;
    } else if ("error" in r) {
      error = r.error;
    } else {
      body = r.body;
      bodyEnd = r.end;
    }
  } else if (!error && cl !== undefined) {
    if (!/^[0-9]+$/.test(cl)) {
      error = "bad content-length";
    } else {
      const n = Number(cl);
      if (n > MAX_BODY_BYTES) error = "body too large";
      else if (buf.length < bodyStart + n) return undefined;
      else {
        body = buf.subarray(bodyStart, bodyStart + n);
        bodyEnd = bodyStart + n;
      }
    }
  }
  if (error) {
    return { ...base, body: buf.subarray(bodyStart), raw: Buffer.from(buf), extra: Buffer.alloc(0), error };
  }
  if (body! === undefined) {
    body = Buffer.alloc(0);
    bodyEnd = bodyStart;
  }
  return {
    ...base,
    body: Buffer.from(body!),
    raw: Buffer.from(buf.subarray(0, bodyEnd!)),
    extra: Buffer.from(buf.subarray(bodyEnd!)),
  };
}

function malformed(buf: Buffer, error: string): ParsedRequest {
  return {
    method: "",
    target: "",
    version: "",
    requestLine: "",
    headerLines: [],
    headers: [],
    lineEnding: "\r\n",
    body: Buffer.alloc(0),
    raw: Buffer.from(buf),
    extra: Buffer.alloc(0),
    error,
  };
}

const REASONS: Record<number, string> = {
  200: "OK",
  201: "Created",
  202: "Accepted",
  204: "No Content",
  400: "Bad Request",
  403: "Forbidden",
  404: "Not Found",
  405: "Method Not Allowed",
  409: "Conflict",
  413: "Payload Too Large",
  431: "Request Header Fields Too Large",
  500: "Internal Server Error",
  502: "Bad Gateway",
  503: "Service Unavailable",
};

export function reasonPhrase(status: number): string {
  return REASONS[status] ?? "Status";
}

export interface ReplyShape {
  status: number;
  reason?: string;
  // Headers in the order they are sent; Content-Length or Transfer-Encoding and
  // Connection follow them.
  headers: HeaderList;
  // Each replaces the header of the same name in place, or comes last.
  extraHeaders?: HeaderList;
  body: Buffer;
  // Send the body chunked, with these chunk sizes; bytes left over go in one last chunk.
  chunks?: number[];
  // With chunks: false leaves out the terminating zero-size chunk.
  chunkEnd?: boolean;
  // A number announces that length whatever the body holds; false sends no Content-Length.
  contentLength?: number | false;
}

// The status line and header block of a reply whose body holds `bodyLength` bytes.
export function replyHead(reply: Omit<ReplyShape, "body">, bodyLength: number): Buffer {
  const headers: HeaderList = reply.headers.map(([k, v]) => [k, v]);
  const has = (name: string) => headers.some(([k]) => k.toLowerCase() === name.toLowerCase());
  if (reply.chunks !== undefined) {
    if (!has("transfer-encoding")) headers.push(["Transfer-Encoding", "chunked"]);
  } else if (reply.contentLength !== false && !has("content-length")) {
    headers.push(["Content-Length", String(reply.contentLength ?? bodyLength)]);
  }
  if (!has("connection")) headers.push(["Connection", "close"]);
  for (const [k, v] of reply.extraHeaders ?? []) {
    const i = headers.findIndex(([n]) => n.toLowerCase() === k.toLowerCase());
    if (i >= 0) headers[i] = [k, v];
    else headers.push([k, v]);
  }
  const head =
    `HTTP/1.1 ${reply.status} ${reply.reason ?? reasonPhrase(reply.status)}\r\n` +
    headers.map(([k, v]) => `${k}: ${v}\r\n`).join("") +
    "\r\n";
  return Buffer.from(head, "utf8");
}

// The most a body piece holds, so that a large body is sent without being held whole.
export const BODY_PIECE_BYTES = 1 << 20;

// A body of `size` bytes as it goes on the wire, in pieces of at most BODY_PIECE_BYTES taken
// from `slice`: as it stands, or framed in chunks of the given sizes (the bytes left over go in
// one last chunk), ending with the zero-size chunk unless `chunkEnd` is false.
export function* bodyFrames(
  size: number,
  slice: (start: number, end: number) => Buffer,
  chunks?: number[],
  chunkEnd?: boolean,
): Generator<Buffer> {
  function* pieces(start: number, end: number): Generator<Buffer> {
    for (let p = start; p < end; p += BODY_PIECE_BYTES) yield slice(p, Math.min(end, p + BODY_PIECE_BYTES));
  }
  if (chunks === undefined) {
    yield* pieces(0, size);
    return;
  }
  let pos = 0;
  function* chunk(n: number): Generator<Buffer> {
    yield Buffer.from(n.toString(16) + "\r\n");
    yield* pieces(pos, pos + n);
    yield Buffer.from("\r\n");
    pos += n;
  }
  for (const c of chunks) {
    if (pos >= size) break;
    yield* chunk(Math.min(c, size - pos));
  }
  if (pos < size) yield* chunk(size - pos);
  if (chunkEnd !== false) yield Buffer.from("0\r\n\r\n");
}

export function buildReply(reply: ReplyShape): Buffer {
  const body = reply.body;
  const frames = bodyFrames(body.length, (start, end) => body.subarray(start, end), reply.chunks, reply.chunkEnd);
  return Buffer.concat([replyHead(reply, body.length), ...frames]);
}

export interface ParsedReply {
  status: number;
  reason: string;
  statusLine: string;
  headers: HeaderList;
  // The body after de-chunking (when chunked) or cut to Content-Length.
  body: Buffer;
  chunked: boolean;
  // Sizes of the chunks received, when chunked.
  chunkSizes: number[];
  // Whether a chunked body ended with its zero-size chunk.
  chunkEnd: boolean;
  raw: Buffer;
}

// Parses a complete reply as a test client sees it. Throws on bytes that are
// not an HTTP reply at all.
export function parseReply(raw: Buffer): ParsedReply {
  const at = raw.indexOf("\r\n\r\n");
  if (at < 0) throw new Error("malformed HTTP reply");
  const lines = raw.toString("utf8", 0, at).split("\r\n");
  const statusLine = lines[0];
  const m = /^HTTP\/\d\.\d (\d{3})(?: (.*))?$/.exec(statusLine);
  if (!m) throw new Error("malformed HTTP status line: " + statusLine);
  const headers: HeaderList = lines.slice(1).map((l) => {
    const c = l.indexOf(":");
    return c < 0 ? [l, ""] : [l.slice(0, c), l.slice(c + 1).trim()];
  });
  let body = raw.subarray(at + 4);
  const chunkSizes: number[] = [];
  let chunkEnd = false;
  const chunked = (headerValue(headers, "transfer-encoding") ?? "").toLowerCase() === "chunked";
  if (chunked) {
    const parts: Buffer[] = [];
    let pos = 0;
    while (pos < body.length) {
      const eol = body.indexOf("\r\n", pos);
      if (eol < 0) throw new Error("malformed chunk size");
      const size = parseInt(body.toString("latin1", pos, eol), 16);
      if (Number.isNaN(size)) throw new Error("malformed chunk size");
      pos = eol + 2;
      if (size === 0) {
        chunkEnd = true;
        break;
      }
      if (pos + size > body.length) throw new Error("truncated chunk");
      chunkSizes.push(size);
      parts.push(body.subarray(pos, pos + size));
      pos += size + 2;
    }
    body = Buffer.concat(parts);
  } else {
    const cl = headerValue(headers, "content-length");
    if (cl !== undefined && /^[0-9]+$/.test(cl) && Number(cl) < body.length) body = body.subarray(0, Number(cl));
  }
  return {
    status: Number(m[1]),
    reason: m[2] ?? "",
    statusLine,
    headers,
    body: Buffer.from(body),
    chunked,
    chunkSizes,
    chunkEnd,
    raw,
  };
}
