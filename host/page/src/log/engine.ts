import { clock, day, grouped } from "../format";
import { clean, type Styles } from "./ansi";
import {
    type Bounds,
    Deque,
    exactTime,
    type Kind,
    LineBuffer,
    type LogLine,
    mergeByTime,
    sizeOf,
    usualBounds,
} from "./lines";
import { compile, noPattern, type Pattern, type PatternText } from "./pattern";
import { columnRange, isUneven, rowCount, rowStarts, textColumns } from "./width";

export interface IncomingLine {
    time: string;
    stream: "stdout" | "stderr" | "tty";
    text: string;
    partial: boolean;
}

export interface ViewSettings {
    stamps: "off" | "time" | "date";
    wrap: boolean;
    streams: "all" | "stdout" | "stderr";
    filter: PatternText;
    search: PatternText;
}

export const usualSettings: ViewSettings = {
    stamps: "time",
    wrap: true,
    streams: "all",
    filter: noPattern,
    search: noPattern,
};

/** What is to be seen, row by row, and where that is in the whole. Rows are counted from the first line ever shown. */
export interface Frame {
    /** rows as they go to the terminal, without cursor positions */
    rows: string[];
    /** the same without colours */
    plain: string[];
    firstRow: number;
    endRow: number;
    topRow: number;
    /** columns of the longest line that was seen; 0 while lines are wrapped */
    widest: number;
    lines: number;
    shown: number;
    bytes: number;
    fresh: number;
    following: boolean;
    paused: boolean;
    hits: number;
    /** which of the hits is the current one, from 1; 0 without one */
    hit: number;
    filterError: string;
    searchError: string;
    /** lines that had to go */
    discarded: number;
}

interface Shown {
    line: LogLine;
    /** the row after its last one */
    end: number;
    hit: boolean;
}

/** Colours in which containers are told apart. */
const nameColours = ["36", "35", "32", "34", "33", "96", "95", "92", "94", "93"];
const highlight = "30;43";
const currentHighlight = "30;46";
const longestLine = 64 * 1024;
const longestName = 24;
const leastContent = 16;

/**
 * Keeps the lines of one or more logs within bounds and says what a window of some columns and rows shows of them.
 */
export class LogEngine {
    private readonly buffer: LineBuffer;
    private readonly sources: string[] = [];
    private shown = new Deque<Shown>();
    private firstRow = 0;
    private settings: ViewSettings = usualSettings;
    private filter: Pattern | null = null;
    private filterError = "";
    private search: Pattern | null = null;
    private searchError = "";
    private columns = 80;
    private rows = 24;
    private left = 0;
    private widest = 0;
    private following = true;
    private pausedAt = -1;
    private topRow = 0;
    private fresh = 0;
    private freshAfter = 0;
    private hits = 0;
    private current: LogLine | null = null;
    private nextNumber = 1;
    private nameWidth = 0;
    private lastOrder: number[] = [];
    private lastStyle: string[] = [];
    private goesOn = new Map<string, boolean>();
    private droppedInPause = 0;
    private discarded = 0;

    /** @param sources names of the containers whose lines come */
    constructor(sources: readonly string[], bounds: Bounds = usualBounds) {
        this.buffer = new LineBuffer(bounds);
        for (const name of sources) {
            this.addSource(name);
        }
    }

    get paused(): boolean {
        return this.pausedAt >= 0;
    }

    /** One more container whose lines come; what is there stays, and stays in view. */
    addSource(name: string): void {
        this.sources.push(name);
        this.lastOrder.push(Number.NEGATIVE_INFINITY);
        const width =
            this.sources.length > 1
                ? Math.min(longestName, Math.max(...this.sources.map((other) => other.length)))
                : 0;
        if (width !== this.nameWidth) {
            this.nameWidth = width;
            this.rebuild();
        }
    }

    setSettings(settings: ViewSettings): void {
        const filter = compile(settings.filter);
        const search = compile(settings.search);
        this.settings = settings;
        this.filterError = filter.error;
        this.searchError = search.error;
        if (!filter.error) {
            this.filter = filter.pattern;
        }
        if (!search.error) {
            this.search = search.pattern;
        }
        this.rebuild();
    }

    setWindow(columns: number, rows: number, left: number): void {
        const narrowed = columns !== this.columns;
        this.columns = Math.max(leastContent, columns);
        this.rows = Math.max(1, rows);
        this.left = Math.max(0, left);
        if (narrowed) {
            this.rebuild();
        }
    }

    /** Lines of one container, in their order. */
    append(source: number, incoming: readonly IncomingLine[]): void {
        const lines = incoming.map((line) => this.made(source, line));
        this.take(lines);
    }

    /** A line of the page's own, at the end. */
    note(source: number, text: string, time: number): void {
        const order = this.buffer.lines.last?.order ?? Number.NEGATIVE_INFINITY;
        this.take([this.line(source, "note", time, order, text, null, false)]);
    }

    scrollTo(row: number): void {
        const last = this.lastTop();
        this.topRow = Math.min(Math.max(row, this.firstRow), last);
        if (this.topRow >= last && !this.paused) {
            this.toEnd();
        } else {
            this.stopFollowing();
        }
    }

    /** Stays where it is, whatever comes. */
    hold(): void {
        this.topRow = this.visibleTop();
        this.stopFollowing();
    }

    toEnd(): void {
        if (this.paused) {
            this.resume();
        }
        this.following = true;
        this.fresh = 0;
    }

    pause(): void {
        if (!this.paused) {
            this.topRow = this.visibleTop();
            this.stopFollowing();
            this.pausedAt = this.nextNumber - 1;
        }
    }

    resume(): void {
        if (!this.paused) {
            return;
        }
        this.pausedAt = -1;
        if (this.droppedInPause > 0) {
            const count = this.droppedInPause;
            this.droppedInPause = 0;
            this.note(
                0,
                skippedText(count, "the view was paused"),
                this.buffer.lines.last?.time ?? Number.NaN,
            );
        }
        this.following = true;
        this.fresh = 0;
        this.rebuild();
    }

    clear(): void {
        this.discarded += this.buffer.lines.length;
        this.buffer.clear();
        this.rebuild();
        this.toEnd();
    }

    /** Goes to the next hit of the search behind the current one (1), or before it (-1). */
    find(direction: 1 | -1): void {
        if (!this.search || this.hits === 0) {
            return;
        }
        const from = this.current ? this.indexOf(this.current) : -1;
        const start =
            from >= 0
                ? from
                : direction > 0
                  ? this.indexAtRow(this.visibleTop()) - 1
                  : this.indexAtRow(this.visibleTop());
        for (let step = 1; step <= this.shown.length; step++) {
            const index =
                (((start + direction * step) % this.shown.length) + this.shown.length) % this.shown.length;
            const item = this.shown.at(index) as Shown;
            if (item.hit) {
                this.current = item.line;
                this.reveal(index);
                return;
            }
        }
    }

    /** The lines that pass the filter, as text. */
    *text(): Generator<string> {
        for (let index = 0; index < this.shown.length; index++) {
            const { line } = this.shown.at(index) as Shown;
            const time = Number.isNaN(line.time) ? "-" : new Date(line.time).toISOString();
            const name = this.nameWidth > 0 && line.kind !== "note" ? ` ${this.sources[line.source]}` : "";
            const stream =
                line.kind === "stdout"
                    ? "out"
                    : line.kind === "stderr"
                      ? "err"
                      : line.kind === "tty"
                        ? "tty"
                        : "---";
            yield `${time}${name} ${stream} ${line.plain}\n`;
        }
    }

    frame(): Frame {
        const top = this.visibleTop();
        this.topRow = top;
        const rows: string[] = [];
        const plain: string[] = [];
        let index = this.indexAtRow(top);
        let row = top;
        while (rows.length < this.rows) {
            const item = this.shown.at(index);
            if (!item) {
                break;
            }
            const start = this.startOf(index);
            const painted = this.paint(item);
            for (let part = row - start; part < item.end - start && rows.length < this.rows; part++) {
                rows.push(painted[part]?.[0] ?? "");
                plain.push(painted[part]?.[1] ?? "");
                row++;
            }
            index++;
        }
        return {
            rows,
            plain,
            firstRow: this.firstRow,
            endRow: this.endRow(),
            topRow: top,
            widest: this.settings.wrap ? 0 : this.widest,
            lines: this.buffer.lines.length,
            shown: this.shown.length,
            bytes: this.buffer.bytes,
            fresh: this.following ? 0 : this.fresh,
            following: this.following,
            paused: this.paused,
            hits: this.hits,
            hit: this.currentHit(),
            filterError: this.filterError,
            searchError: this.searchError,
            discarded: this.discarded,
        };
    }

    private made(source: number, incoming: IncomingLine): LogLine {
        const stream = `${source} ${incoming.stream}`;
        const continues = this.goesOn.get(stream) === true;
        const text =
            incoming.text.length > longestLine ? `${incoming.text.slice(0, longestLine)}…` : incoming.text;
        const cleaned = clean(text, continues ? (this.lastStyle[source] ?? "") : "");
        this.lastStyle[source] = incoming.partial ? cleaned.style : "";
        this.goesOn.set(stream, incoming.partial);
        const time = exactTime(incoming.time);
        const previous = this.lastOrder[source] ?? Number.NEGATIVE_INFINITY;
        const order = time > previous ? time : previous === Number.NEGATIVE_INFINITY ? 0 : previous;
        this.lastOrder[source] = order;
        return this.line(source, incoming.stream, time, order, cleaned.plain, cleaned.styles, continues);
    }

    private line(
        source: number,
        kind: Kind,
        time: number,
        order: number,
        plain: string,
        styles: Styles | null,
        continues: boolean,
    ): LogLine {
        const number = this.nextNumber++;
        return {
            number,
            source,
            kind,
            time,
            order,
            plain,
            styles,
            uneven: isUneven(plain),
            continues,
            size: sizeOf(plain, styles),
        };
    }

    private take(lines: LogLine[]): void {
        const first = lines[0];
        if (!first) {
            return;
        }
        const last = this.buffer.lines.last;
        if (!last || last.order <= first.order) {
            for (const line of lines) {
                this.buffer.push(line);
                this.show(line, true);
            }
        } else {
            const displaced = this.buffer.takeAfter(first.order);
            const anchor = this.anchor();
            while (this.shown.last && this.shown.last.line.order > first.order) {
                this.unshow(this.shown.pop());
            }
            const known = this.nextNumber - lines.length;
            for (const line of mergeByTime(displaced, lines)) {
                this.buffer.push(line);
                this.show(line, line.number >= known);
                if (anchor && line === anchor.line) {
                    this.topRow = this.startOf(this.shown.length - 1) + anchor.row;
                }
            }
        }
        this.shorten();
    }

    /** Takes lines away until the buffer is within its bounds, oldest first. */
    private shorten(): void {
        const held = this.paused ? this.shown.at(this.indexAtRow(this.topRow))?.line : undefined;
        while (this.buffer.isOver) {
            if (held && this.buffer.lines.at(0) === held) {
                // what is being read stays: the newest lines have to go
                this.buffer.pop();
                this.droppedInPause++;
                this.discarded++;
                continue;
            }
            const gone = this.buffer.shift();
            this.discarded++;
            const head = this.shown.at(0);
            if (head && head.line === gone) {
                this.shown.shift();
                this.firstRow = head.end;
                this.unshow(head);
            }
        }
    }

    private passes(line: LogLine): boolean {
        if (this.paused && line.number > this.pausedAt) {
            return false;
        }
        return line.kind === "note" || this.isWanted(line);
    }

    private show(line: LogLine, isNew: boolean): void {
        if (!this.passes(line)) {
            if (isNew && this.paused && line.kind !== "note" && this.isWanted(line)) {
                this.fresh++;
            }
            return;
        }
        const hit = this.search !== null && line.kind !== "note" && this.search.matches(line.plain);
        this.hits += hit ? 1 : 0;
        this.shown.push({ line, end: this.endRow() + this.rowsOf(line), hit });
        if (isNew && !this.following && line.number > this.freshAfter) {
            this.fresh++;
        }
    }

    /** Whether a line of a container is of the streams and of the texts that are looked at. */
    private isWanted(line: LogLine): boolean {
        if (
            this.settings.streams === "stderr"
                ? line.kind !== "stderr"
                : this.settings.streams === "stdout" && line.kind === "stderr"
        ) {
            return false;
        }
        return this.filter ? this.filter.matches(line.plain) : true;
    }

    private unshow(item: Shown | undefined): void {
        if (item?.hit) {
            this.hits--;
        }
    }

    private rowsOf(line: LogLine): number {
        if (!this.settings.wrap) {
            this.widest = Math.max(
                this.widest,
                this.prefixWidth() + (line.uneven ? textColumns(line.plain) : line.plain.length),
            );
            return 1;
        }
        return rowCount(line.plain, this.columns - this.prefixWidth(), line.uneven);
    }

    private rebuild(): void {
        const anchor = this.anchor();
        this.shown = new Deque();
        this.firstRow = 0;
        this.hits = 0;
        this.widest = 0;
        this.fresh = 0;
        let row = -1;
        for (let index = 0; index < this.buffer.lines.length; index++) {
            const line = this.buffer.lines.at(index) as LogLine;
            if (anchor && line === anchor.line) {
                row = this.endRow();
            }
            this.show(line, !this.following && line.number > this.freshAfter);
        }
        if (row >= 0 && anchor) {
            const index = this.indexAtRow(row);
            const height =
                this.shown.at(index)?.line === anchor.line ? (this.shown.at(index) as Shown).end - row : 1;
            this.topRow = row + Math.min(anchor.row, height - 1);
        }
        if (this.current && this.indexOf(this.current) < 0) {
            this.current = null;
        }
    }

    /** The line at the top, and which of its rows is there. */
    private anchor(): { line: LogLine; row: number } | null {
        const top = this.visibleTop();
        const index = this.indexAtRow(top);
        const item = this.shown.at(index);
        return item ? { line: item.line, row: top - this.startOf(index) } : null;
    }

    private endRow(): number {
        return this.shown.last?.end ?? this.firstRow;
    }

    private lastTop(): number {
        return Math.max(this.firstRow, this.endRow() - this.rows);
    }

    private visibleTop(): number {
        return this.following
            ? this.lastTop()
            : Math.min(Math.max(this.topRow, this.firstRow), this.lastTop());
    }

    private startOf(index: number): number {
        return index > 0 ? (this.shown.at(index - 1) as Shown).end : this.firstRow;
    }

    private indexAtRow(row: number): number {
        return this.shown.firstBeyond((item) => item.end > row);
    }

    private indexOf(line: LogLine): number {
        let index = this.shown.firstBeyond((item) => item.line.order >= line.order);
        for (; index < this.shown.length; index++) {
            const other = (this.shown.at(index) as Shown).line;
            if (other === line) {
                return index;
            }
            if (other.order > line.order) {
                break;
            }
        }
        return -1;
    }

    private reveal(index: number): void {
        const start = this.startOf(index);
        const top = this.visibleTop();
        if (start < top || start >= top + this.rows) {
            this.topRow = Math.min(
                Math.max(start - Math.floor(this.rows / 3), this.firstRow),
                this.lastTop(),
            );
        } else {
            this.topRow = top;
        }
        this.stopFollowing();
    }

    private stopFollowing(): void {
        if (this.following) {
            this.following = false;
            this.fresh = 0;
            this.freshAfter = this.nextNumber - 1;
        }
    }

    private currentHit(): number {
        if (!this.current || !this.search) {
            return 0;
        }
        const index = this.indexOf(this.current);
        if (index < 0 || !this.shown.at(index)?.hit) {
            return 0;
        }
        let count = 0;
        for (let before = 0; before <= index; before++) {
            count += this.shown.at(before)?.hit ? 1 : 0;
        }
        return count;
    }

    private prefixWidth(): number {
        const stamp = this.settings.stamps === "off" ? 0 : this.settings.stamps === "time" ? 13 : 24;
        const name = this.nameWidth > 0 ? this.nameWidth + 1 : 0;
        return Math.min(stamp + name + 2, this.columns - leastContent);
    }

    /** What stands in front of a line: its time, its container, and a sign when it comes from stderr. */
    private prefix(line: LogLine): [string, string] {
        let plain = "";
        let coloured = "";
        if (this.settings.stamps !== "off") {
            const time = Number.isNaN(line.time)
                ? ""
                : this.settings.stamps === "time"
                  ? clock(line.time, true)
                  : `${day(line.time)} ${clock(line.time, true)}`;
            const stamp = line.continues ? "" : time;
            plain += stamp.padEnd(this.settings.stamps === "time" ? 13 : 24);
            coloured += `\x1b[90m${plain}\x1b[0m`;
        }
        if (this.nameWidth > 0) {
            const name = this.sources[line.source] ?? "";
            const short = name.length > this.nameWidth ? `${name.slice(0, this.nameWidth - 1)}…` : name;
            plain += `${short.padEnd(this.nameWidth)} `;
            coloured += `\x1b[${nameColours[line.source % nameColours.length]}m${short.padEnd(this.nameWidth)}\x1b[0m `;
        }
        const sign = line.kind === "stderr" ? "!" : line.kind === "note" ? "-" : line.continues ? "+" : " ";
        plain += `${sign} `;
        coloured +=
            line.kind === "stderr"
                ? "\x1b[1;31m!\x1b[0m "
                : line.kind === "note"
                  ? "\x1b[90m-\x1b[0m "
                  : `\x1b[90m${sign}\x1b[0m `;
        const width = this.prefixWidth();
        if (plain.length > width) {
            // too narrow a window: the end says more than the beginning
            const kept = plain.slice(plain.length - width);
            return [`\x1b[90m${kept}\x1b[0m`, kept];
        }
        return [coloured, plain];
    }

    /** The rows of a line, each with and without colours. */
    private paint(item: Shown): [string, string][] {
        const { line } = item;
        const [prefix, plainPrefix] = this.prefix(line);
        const width = this.columns - plainPrefix.length;
        const runs = this.runs(item);
        if (!this.settings.wrap) {
            const from = this.left;
            const [start, end] = columnRange(line.plain, from, width, line.uneven);
            return [
                [prefix + styled(line.plain, runs, start, end), plainPrefix + line.plain.slice(start, end)],
            ];
        }
        const starts = rowStarts(line.plain, width, line.uneven);
        const indent = " ".repeat(plainPrefix.length);
        return starts.map((start, index) => {
            const end = starts[index + 1] ?? line.plain.length;
            const before = index === 0 ? prefix : indent;
            const plainBefore = index === 0 ? plainPrefix : indent;
            return [
                before + styled(line.plain, runs, start, end),
                plainBefore + line.plain.slice(start, end),
            ];
        });
    }

    /** The styles of a line with what the search found laid over them. */
    private runs(item: Shown): Styles {
        const { line } = item;
        const base: Styles = line.styles ?? { at: [], sgr: [] };
        const usual = line.kind === "stderr" ? "31" : line.kind === "note" ? "3;90" : "";
        const runs: Styles = { at: [0], sgr: [usual] };
        for (let index = 0; index < base.at.length; index++) {
            const at = base.at[index] as number;
            const sgr = (base.sgr[index] as string) || usual;
            if (at === 0) {
                runs.sgr[0] = sgr;
            } else {
                runs.at.push(at);
                runs.sgr.push(sgr);
            }
        }
        if (!item.hit || !this.search) {
            return runs;
        }
        const mark = line === this.current ? currentHighlight : highlight;
        const ranges: [number, number][] = this.search.inverted
            ? line === this.current
                ? [[0, line.plain.length]]
                : []
            : this.search.ranges(line.plain, 500);
        return ranges.length > 0 ? overlaid(runs, ranges, mark) : runs;
    }
}

export function skippedText(count: number, why: string): string {
    return count < 0
        ? `skipped lines, nobody knows how many: ${why}`
        : `skipped ${grouped(count)} ${count === 1 ? "line" : "lines"}: ${why}`;
}

/** Styles with ranges in another style laid over them; the ranges are in order and do not overlap. */
export function overlaid(runs: Styles, ranges: readonly [number, number][], sgr: string): Styles {
    const result: Styles = { at: [], sgr: [] };
    const cuts = [...new Set([...runs.at, ...ranges.flat()])].sort((one, other) => one - other);
    let run = -1;
    let range = 0;
    for (const cut of cuts) {
        while (run + 1 < runs.at.length && (runs.at[run + 1] as number) <= cut) {
            run++;
        }
        while (range < ranges.length && (ranges[range] as [number, number])[1] <= cut) {
            range++;
        }
        const within = range < ranges.length && (ranges[range] as [number, number])[0] <= cut;
        const style = within ? sgr : (runs.sgr[run] ?? "");
        if (result.sgr[result.sgr.length - 1] !== style) {
            result.at.push(cut);
            result.sgr.push(style);
        }
    }
    return result;
}

/** A part of a text with its styles as control sequences. */
export function styled(text: string, runs: Styles, start: number, end: number): string {
    let result = "";
    for (let index = 0; index < runs.at.length; index++) {
        const from = Math.max(start, runs.at[index] as number);
        const to = Math.min(end, runs.at[index + 1] ?? text.length);
        if (from < to) {
            const sgr = runs.sgr[index];
            result += sgr ? `\x1b[${sgr}m${text.slice(from, to)}\x1b[0m` : text.slice(from, to);
        }
    }
    return result;
}
