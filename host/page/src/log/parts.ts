import type { IncomingLine } from "./engine";

/** How long the beginning of a line waits for the rest: what a program means to be seen at once, such as a question,
 * ends without a line feed too. */
const patience = 250;
const longestJoined = 64 * 1024;

export interface Timers {
    later(task: () => void, milliseconds: number): unknown;
    cancel(timer: unknown): void;
}

/**
 * Makes whole lines of those that come in parts, so that search and filter see them whole. Podman's monitor reads what a
 * container writes in blocks, and cuts the line at the end of each.
 */
export class LineJoiner {
    private readonly open = new Map<string, IncomingLine>();
    private timer: unknown = null;

    constructor(
        private readonly give: (lines: IncomingLine[]) => void,
        private readonly timers: Timers,
    ) {}

    /** Lines of one container, in their order. */
    take(incoming: readonly IncomingLine[]): void {
        const lines: IncomingLine[] = [];
        for (const line of incoming) {
            const begun = this.open.get(line.stream);
            this.open.delete(line.stream);
            let whole = line;
            if (begun && begun.text.length + line.text.length <= longestJoined) {
                whole = { ...line, time: begun.time, text: begun.text + line.text };
            } else if (begun) {
                lines.push(begun);
            }
            if (whole.partial) {
                this.open.set(whole.stream, whole);
            } else {
                lines.push(whole);
            }
        }
        this.arm();
        if (lines.length > 0) {
            this.give(lines);
        }
    }

    /** Nothing more is to be waited for: gives the beginnings that are there. */
    flush(): void {
        const lines = [...this.open.values()];
        this.open.clear();
        this.arm();
        if (lines.length > 0) {
            this.give(lines);
        }
    }

    /** A running timer stays, whatever else comes: something open may have waited since it was set. */
    private arm(): void {
        if (this.timer !== null && this.open.size === 0) {
            this.timers.cancel(this.timer);
            this.timer = null;
        } else if (this.timer === null && this.open.size > 0) {
            this.timer = this.timers.later(() => {
                this.timer = null;
                this.flush();
            }, patience);
        }
    }
}
