import type { Styles } from "./ansi";

export type Kind = "stdout" | "stderr" | "tty" | "note";

/** A line of a log as it is kept. */
export interface LogLine {
    /** in which order it came */
    number: number;
    /** index of the container it came from */
    source: number;
    kind: Kind;
    /** milliseconds since the epoch with parts of them; NaN when unknown */
    time: number;
    /** the time by which lines are ordered: never less than that of the line before it from the same container */
    order: number;
    plain: string;
    styles: Styles | null;
    /** has characters that do not take exactly one column */
    uneven: boolean;
    /** goes on a line of which a part had to be shown before the rest came */
    continues: boolean;
    /** bytes that it takes, roughly */
    size: number;
}

export function sizeOf(plain: string, styles: Styles | null): number {
    return 160 + plain.length * 2 + (styles ? styles.at.length * 48 : 0);
}

/** A queue that is also an array: both ends, and any index. */
export class Deque<T> {
    private items: T[] = [];
    private head = 0;

    get length(): number {
        return this.items.length - this.head;
    }

    at(index: number): T | undefined {
        return index < 0 ? undefined : this.items[this.head + index];
    }

    set(index: number, item: T): void {
        this.items[this.head + index] = item;
    }

    get last(): T | undefined {
        return this.length > 0 ? this.items[this.items.length - 1] : undefined;
    }

    push(item: T): void {
        this.items.push(item);
    }

    pop(): T | undefined {
        return this.length > 0 ? this.items.pop() : undefined;
    }

    shift(): T | undefined {
        if (this.length === 0) {
            return undefined;
        }
        const item = this.items[this.head];
        this.items[this.head++] = undefined as T;
        if (this.head > 4096 && this.head * 2 > this.items.length) {
            this.items = this.items.slice(this.head);
            this.head = 0;
        }
        return item;
    }

    clear(): void {
        this.items = [];
        this.head = 0;
    }

    /** The first index whose item is beyond, with items that are not beyond before all that are. */
    firstBeyond(isBeyond: (item: T) => boolean): number {
        let low = 0;
        let high = this.length;
        while (low < high) {
            const middle = (low + high) >> 1;
            if (isBeyond(this.at(middle) as T)) {
                high = middle;
            } else {
                low = middle + 1;
            }
        }
        return low;
    }
}

/** Milliseconds since the epoch of a time with nanoseconds, to a fraction of a microsecond; NaN when it is none. */
export function exactTime(iso: string): number {
    const milliseconds = Date.parse(iso);
    const finer = /\.\d{3}(\d{1,6})/.exec(iso)?.[1];
    return finer ? milliseconds + Number(finer) / 10 ** finer.length : milliseconds;
}

export interface Bounds {
    lines: number;
    bytes: number;
}

export const usualBounds: Bounds = { lines: 50_000, bytes: 32 * 1024 * 1024 };

/** The lines that are kept, by time, never more than the bounds allow. */
export class LineBuffer {
    readonly lines = new Deque<LogLine>();
    bytes = 0;

    constructor(readonly bounds: Bounds = usualBounds) {}

    get isOver(): boolean {
        return (
            this.lines.length > this.bounds.lines || (this.bytes > this.bounds.bytes && this.lines.length > 1)
        );
    }

    push(line: LogLine): void {
        this.lines.push(line);
        this.bytes += line.size;
    }

    pop(): LogLine | undefined {
        return this.without(this.lines.pop());
    }

    shift(): LogLine | undefined {
        return this.without(this.lines.shift());
    }

    /** Takes the lines that come after a time away from the end; they come back in their order. */
    takeAfter(order: number): LogLine[] {
        const from = this.lines.firstBeyond((line) => line.order > order);
        const taken: LogLine[] = [];
        while (this.lines.length > from) {
            taken.push(this.pop() as LogLine);
        }
        return taken.reverse();
    }

    clear(): void {
        this.lines.clear();
        this.bytes = 0;
    }

    private without(line: LogLine | undefined): LogLine | undefined {
        if (line) {
            this.bytes -= line.size;
        }
        return line;
    }
}

/** Two ordered lists as one; at the same time the earlier list comes first. */
export function mergeByTime(earlier: LogLine[], later: LogLine[]): LogLine[] {
    const merged: LogLine[] = [];
    let left = 0;
    let right = 0;
    while (left < earlier.length && right < later.length) {
        const one = earlier[left] as LogLine;
        const other = later[right] as LogLine;
        if (one.order <= other.order) {
            merged.push(one);
            left++;
        } else {
            merged.push(other);
            right++;
        }
    }
    for (; left < earlier.length; left++) merged.push(earlier[left] as LogLine);
    for (; right < later.length; right++) merged.push(later[right] as LogLine);
    return merged;
}
