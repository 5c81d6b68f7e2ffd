import type { ConnectionState } from "./connection";
import type { Frame, ViewSettings } from "./engine";

/** What the list of containers says of one. */
export interface Standing {
    name: string;
    isRunning: boolean;
    /** the time of its last start; undefined when the daemon does not tell */
    startedAt: string | undefined;
}

/** What the page asks of the worker that keeps a log. */
export type ToWorker =
    | { type: "open"; base: string; containers: string[]; tail: number; settings: ViewSettings }
    | { type: "join"; containers: string[] }
    | { type: "settings"; settings: ViewSettings }
    | { type: "window"; columns: number; rows: number; left: number }
    | { type: "scroll"; row: number }
    | { type: "hold" }
    | { type: "end" }
    | { type: "pause"; on: boolean }
    | { type: "find"; direction: 1 | -1 }
    | { type: "clear" }
    | { type: "frame" }
    | { type: "text" }
    | { type: "wake"; containers: Standing[] }
    | { type: "hurry" }
    | { type: "doubt" };

/** What the worker tells the page. */
export type FromWorker =
    /** something changed since the last frame; said once until the next frame is asked for */
    | { type: "dirty" }
    | { type: "frame"; frame: Frame; states: ConnectionState[] }
    | { type: "text"; blob: Blob; lines: number }
    /** the daemon does not know who asks */
    | { type: "unknown" };
