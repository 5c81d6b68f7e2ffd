import { Malformed } from "../api/decode";
import type { IncomingLine } from "./engine";

export type LogMessage =
    | { type: "start"; container: string; tty: boolean }
    | { type: "lines"; lines: IncomingLine[]; cursor: string }
    | { type: "skipped"; count: number }
    | { type: "end"; code: string; reason: string };

const longestMessage = 16 * 1024 * 1024;
const mostLines = 100_000;
const longestCursor = 200;

function lineOf(value: unknown): IncomingLine & { cursor: string } {
    const line = value as Record<string, unknown> | null;
    if (
        typeof line !== "object" ||
        line === null ||
        typeof line.cursor !== "string" ||
        line.cursor.length > longestCursor ||
        typeof line.time !== "string" ||
        line.time.length > 64 ||
        typeof line.text !== "string" ||
        (line.stream !== "stdout" && line.stream !== "stderr" && line.stream !== "tty")
    ) {
        throw new Malformed("a line of the log", "a line with cursor, time, stream and text");
    }
    return {
        cursor: line.cursor,
        time: line.time,
        stream: line.stream,
        text: line.text,
        partial: line.partial === true,
    };
}

/** A message of the log's WebSocket; null for one of a later version. */
export function logMessage(data: unknown): LogMessage | null {
    if (typeof data !== "string" || data.length > longestMessage) {
        throw new Malformed("a message of the log", "a text of at most 16 MiB");
    }
    let value: Record<string, unknown> | null;
    try {
        value = JSON.parse(data);
    } catch {
        throw new Malformed("a message of the log", "JSON");
    }
    if (typeof value !== "object" || value === null) {
        throw new Malformed("a message of the log", "an object");
    }
    switch (value.type) {
        case "start":
            if (typeof value.container !== "string") {
                throw new Malformed("the start of the log", "with a container");
            }
            return { type: "start", container: value.container.slice(0, 200), tty: value.tty === true };
        case "lines": {
            if (!Array.isArray(value.lines) || value.lines.length > mostLines) {
                throw new Malformed("lines of the log", "a list");
            }
            const lines = value.lines.map(lineOf);
            return { type: "lines", lines, cursor: lines[lines.length - 1]?.cursor ?? "" };
        }
        case "skipped":
            if (typeof value.count !== "number" || !Number.isSafeInteger(value.count)) {
                throw new Malformed("the count of skipped lines", "a whole number");
            }
            return { type: "skipped", count: value.count };
        case "end": {
            const text = (member: unknown) => (typeof member === "string" ? member.slice(0, 1000) : "");
            return { type: "end", code: text(value.code), reason: text(value.reason) };
        }
        default:
            return null;
    }
}
