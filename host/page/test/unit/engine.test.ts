import { beforeEach, describe, expect, it } from "vitest";
import {
    type IncomingLine,
    LogEngine,
    overlaid,
    styled,
    usualSettings,
    type ViewSettings,
} from "../../src/log/engine";
import { exactTime } from "../../src/log/lines";
import { noPattern } from "../../src/log/pattern";

const start = Date.parse("2026-11-21T19:00:00Z");
const at = (seconds: number) => new Date(start + seconds * 1000).toISOString();
const line = (text: string, seconds = 0, more: Partial<IncomingLine> = {}): IncomingLine => ({
    time: at(seconds),
    stream: "stdout",
    text,
    partial: false,
    ...more,
});
const many = (count: number, from = 0) =>
    Array.from({ length: count }, (_, index) => line(`line ${from + index}`, from + index));
const bare: ViewSettings = { ...usualSettings, stamps: "off" };

function engineOf(sources = ["one"], bounds = { lines: 1000, bytes: 1e9 }, settings = bare): LogEngine {
    const engine = new LogEngine(sources, bounds);
    engine.setSettings(settings);
    engine.setWindow(40, 5, 0);
    return engine;
}

const rows = (engine: LogEngine) => engine.frame().plain.map((row) => row.trim());

describe("the window over a log", () => {
    let engine: LogEngine;
    beforeEach(() => {
        engine = engineOf();
    });

    it("shows the last lines while it follows", () => {
        engine.append(0, many(20));
        expect(rows(engine)).toEqual(["line 15", "line 16", "line 17", "line 18", "line 19"]);
        expect(engine.frame()).toMatchObject({
            firstRow: 0,
            endRow: 20,
            topRow: 15,
            lines: 20,
            shown: 20,
            following: true,
            fresh: 0,
        });
    });

    it("stays where it is after scrolling up, and counts what is new", () => {
        engine.append(0, many(20));
        engine.scrollTo(3);
        engine.append(0, many(7, 20));
        expect(rows(engine)[0]).toBe("line 3");
        expect(engine.frame()).toMatchObject({ following: false, fresh: 7 });
        engine.toEnd();
        expect(rows(engine)[4]).toBe("line 26");
        expect(engine.frame()).toMatchObject({ following: true, fresh: 0 });
    });

    it("stays where it is when it is held, also at the end and before it is full", () => {
        engine.append(0, many(3));
        engine.hold();
        engine.append(0, many(10, 3));
        expect(rows(engine)).toEqual(["line 0", "line 1", "line 2", "line 3", "line 4"]);
        expect(engine.frame()).toMatchObject({ following: false, fresh: 10 });
    });

    it("follows again when it is scrolled to the end", () => {
        engine.append(0, many(20));
        engine.scrollTo(3);
        engine.scrollTo(999);
        expect(engine.frame().following).toBe(true);
    });

    it("never keeps more lines than its bound", () => {
        engine = engineOf(["one"], { lines: 100, bytes: 1e9 });
        for (let round = 0; round < 50; round++) {
            engine.append(0, many(37, round * 37));
        }
        const frame = engine.frame();
        expect(frame.lines).toBe(100);
        expect(frame.endRow - frame.firstRow).toBe(100);
        expect(frame.discarded).toBe(50 * 37 - 100);
        expect(rows(engine)[4]).toBe("line 1849");
    });

    it("never keeps more bytes than its bound", () => {
        engine = engineOf(["one"], { lines: 1e6, bytes: 100_000 });
        engine.append(
            0,
            Array.from({ length: 500 }, () => line("x".repeat(1000))),
        );
        expect(engine.frame().bytes).toBeLessThanOrEqual(100_000);
        expect(engine.frame().lines).toBeGreaterThan(30);
    });

    it("cuts a line that is too long for anything", () => {
        engine.append(0, [line("x".repeat(1_000_000))]);
        expect(engine.frame().bytes).toBeLessThan(140_000);
    });

    it("stays at its line while older lines go", () => {
        engine = engineOf(["one"], { lines: 100, bytes: 1e9 });
        engine.append(0, many(100));
        engine.scrollTo(50);
        engine.append(0, many(30, 100));
        expect(rows(engine)[0]).toBe("line 50");
        engine.append(0, many(60, 130));
        expect(rows(engine)[0]).toBe("line 90");
    });

    it("wraps long lines, and scrolls by rows", () => {
        engine.setWindow(22, 5, 0);
        engine.append(0, [line(`${"a".repeat(20) + "b".repeat(20)}c`), line("end")]);
        expect(rows(engine)).toEqual(["a".repeat(20), "b".repeat(20), "c", "end"]);
        engine.setWindow(22, 2, 0);
        engine.scrollTo(1);
        expect(rows(engine)).toEqual(["b".repeat(20), "c"]);
    });

    it("keeps its place when the width changes", () => {
        engine.append(
            0,
            Array.from({ length: 50 }, (_, index) => line(`${index} ${"x".repeat(60)}`)),
        );
        engine.scrollTo(40);
        const before = rows(engine)[0];
        engine.setWindow(100, 5, 0);
        expect(rows(engine)[0]?.slice(0, 5)).toBe(before?.slice(0, 5));
    });

    it("shows a part of long lines when they are not wrapped", () => {
        engine.setSettings({ ...bare, wrap: false });
        engine.append(0, [line("0123456789".repeat(10)), line("short")]);
        expect(engine.frame()).toMatchObject({ endRow: 2, widest: 102 });
        engine.setWindow(22, 5, 10);
        expect(rows(engine)).toEqual(["01234567890123456789", ""]);
    });

    it("counts columns of wide characters", () => {
        engine.setWindow(22, 5, 0);
        engine.append(0, [line("温".repeat(11))]);
        expect(rows(engine)).toEqual(["温".repeat(10), "温"]);
    });

    it("marks stderr with a sign and a colour", () => {
        engine.append(0, [line("fine"), line("broken", 1, { stream: "stderr" })]);
        const { rows: coloured, plain } = engine.frame();
        expect(plain).toEqual(["  fine", "! broken"]);
        expect(coloured[1]).toBe("\x1b[1;31m!\x1b[0m \x1b[31mbroken\x1b[0m");
    });

    it("puts times in front of lines when asked", () => {
        engine.setSettings({ ...bare, stamps: "time" });
        engine.append(0, [line("x")]);
        expect(engine.frame().plain[0]).toMatch(/^\d\d:\d\d:00\.000 {3}x$/);
        engine.setSettings({ ...bare, stamps: "date" });
        engine.setWindow(80, 5, 0);
        expect(engine.frame().plain[0]).toMatch(/^2026-11-2\d \d\d:\d\d:00\.000 {3}x$/);
    });

    it("lets a line that came in parts be seen as one", () => {
        engine.append(0, [line("\x1b[31mfirst", 0, { partial: true }), line("second", 0), line("third")]);
        const frame = engine.frame();
        expect(frame.plain).toEqual(["  first", "+ second", "  third"]);
        expect(frame.rows[1]).toContain("\x1b[31msecond");
        expect(frame.rows[2]).not.toContain("\x1b[31m");
    });

    it("has rows of its own for what was skipped", () => {
        engine.append(0, many(2));
        engine.note(0, "skipped 12 lines", start);
        expect(rows(engine)).toEqual(["line 0", "line 1", "- skipped 12 lines"]);
    });

    it("gives the lines as text, without colours", () => {
        engine.append(0, [line("\x1b[31mred\x1b[0m"), line("bad", 1, { stream: "stderr" })]);
        expect([...engine.text()]).toEqual([`${at(0)} out red\n`, `${at(1)} err bad\n`]);
    });

    it("is empty after clearing, and goes on", () => {
        engine.append(0, many(20));
        engine.clear();
        expect(engine.frame()).toMatchObject({ lines: 0, shown: 0, bytes: 0, rows: [] });
        engine.append(0, many(2));
        expect(rows(engine)).toEqual(["line 0", "line 1"]);
    });
});

describe("pausing", () => {
    it("shows nothing new until it goes on", () => {
        const engine = engineOf();
        engine.append(0, many(10));
        engine.pause();
        engine.append(0, many(10, 10));
        expect(rows(engine)[4]).toBe("line 9");
        expect(engine.frame()).toMatchObject({ paused: true, fresh: 10 });
        engine.resume();
        expect(rows(engine)[4]).toBe("line 19");
        expect(engine.frame()).toMatchObject({ paused: false, following: true, fresh: 0 });
    });

    it("counts what will be shown, and nothing else", () => {
        const engine = engineOf(["one"], undefined, { ...bare, streams: "stderr" });
        engine.pause();
        engine.append(0, [...many(10), line("wrong", 10, { stream: "stderr" })]);
        expect(engine.frame()).toMatchObject({ paused: true, fresh: 1 });
        engine.resume();
        expect(rows(engine)).toEqual(["! wrong"]);
    });

    it("keeps what is being read when the buffer is full, and says what was lost", () => {
        const engine = engineOf(["one"], { lines: 100, bytes: 1e9 });
        engine.append(0, many(100));
        engine.pause();
        engine.append(0, many(1000, 100));
        expect(rows(engine)).toEqual(["line 95", "line 96", "line 97", "line 98", "line 99"]);
        expect(engine.frame().lines).toBe(100);
        engine.resume();
        expect(rows(engine)[4]).toMatch(/^- skipped 905 lines: the view was paused$/);
    });

    it("can be scrolled in", () => {
        const engine = engineOf();
        engine.append(0, many(50));
        engine.pause();
        engine.append(0, many(50, 50));
        engine.scrollTo(10);
        expect(rows(engine)[0]).toBe("line 10");
        engine.scrollTo(1000);
        expect(rows(engine)[4]).toBe("line 49");
        expect(engine.frame().paused).toBe(true);
    });
});

describe("filter and search", () => {
    const pattern = (text: string, more = {}) => ({ ...noPattern, text, ...more });

    it("shows only what matches, also later", () => {
        const engine = engineOf();
        engine.append(0, many(20));
        engine.setSettings({ ...bare, filter: pattern("line 1\\d") });
        expect(engine.frame()).toMatchObject({ lines: 20, shown: 10 });
        engine.append(0, [line("other"), line("line 15 again")]);
        expect(engine.frame()).toMatchObject({ lines: 22, shown: 11 });
    });

    it("shows what does not match", () => {
        const engine = engineOf();
        engine.append(0, many(20));
        engine.setSettings({ ...bare, filter: pattern("line 1", { inverted: true }) });
        expect(engine.frame().shown).toBe(9);
    });

    it("never hides that something is missing", () => {
        const engine = engineOf();
        engine.append(0, many(3));
        engine.note(0, "skipped 5 lines", start);
        engine.setSettings({ ...bare, filter: pattern("nothing has this") });
        expect(rows(engine)).toEqual(["- skipped 5 lines"]);
    });

    it("stays with the last good expression while a bad one is typed", () => {
        const engine = engineOf();
        engine.append(0, many(20));
        engine.setSettings({ ...bare, filter: pattern("line 1\\d") });
        engine.setSettings({ ...bare, filter: pattern("line (1") });
        expect(engine.frame().shown).toBe(10);
        expect(engine.frame().filterError).toMatch(/Not a regular expression: Unterminated group/);
    });

    it("shows one stream only", () => {
        const engine = engineOf();
        engine.append(0, [line("a"), line("b", 1, { stream: "stderr" }), line("c", 2, { stream: "tty" })]);
        engine.setSettings({ ...bare, streams: "stderr" });
        expect(rows(engine)).toEqual(["! b"]);
        engine.setSettings({ ...bare, streams: "stdout" });
        expect(rows(engine)).toEqual(["a", "c"]);
    });

    it("keeps its place when the filter goes", () => {
        const engine = engineOf();
        engine.append(0, many(100));
        engine.setSettings({ ...bare, filter: pattern("0$") });
        engine.scrollTo(3);
        engine.setSettings(bare);
        expect(rows(engine)[0]).toBe("line 30");
    });

    it("marks and counts what the search finds, and goes from one to the next", () => {
        const engine = engineOf();
        engine.append(0, many(100));
        engine.setSettings({ ...bare, search: pattern("line [25]5") });
        expect(engine.frame()).toMatchObject({ hits: 2, hit: 0 });
        engine.find(-1);
        expect(engine.frame()).toMatchObject({ hits: 2, hit: 2, following: false });
        expect(rows(engine)).toContain("line 55");
        engine.find(-1);
        expect(engine.frame().hit).toBe(1);
        expect(rows(engine)).toContain("line 25");
        engine.find(-1);
        expect(engine.frame().hit).toBe(2);
        const marked = engine.frame().rows.find((row) => row.includes("line 55"));
        expect(marked).toContain("\x1b[30;46mline 55\x1b[0m");
    });

    it("counts hits right while lines come and go", () => {
        const engine = engineOf(["one"], { lines: 100, bytes: 1e9 });
        engine.setSettings({ ...bare, search: pattern("7") });
        engine.append(0, many(1000));
        const expected = Array.from({ length: 100 }, (_, index) => `${900 + index}`).filter((text) =>
            text.includes("7"),
        ).length;
        expect(engine.frame().hits).toBe(expected);
    });
});

describe("several containers", () => {
    it("are merged by time, whenever their lines come", () => {
        const engine = engineOf(["web", "db"]);
        engine.setWindow(40, 10, 0);
        engine.append(0, [line("w1", 1), line("w3", 3), line("w5", 5)]);
        engine.append(1, [line("d2", 2), line("d4", 4), line("d6", 6)]);
        expect(rows(engine)).toEqual([
            "web   w1",
            "db    d2",
            "web   w3",
            "db    d4",
            "web   w5",
            "db    d6",
        ]);
    });

    it("keep the order of each, even when its clock was set back", () => {
        const engine = engineOf(["web", "db"]);
        engine.setWindow(40, 10, 0);
        engine.append(0, [line("w1", 10), line("w2", 5), line("w3", 7)]);
        engine.append(1, [line("d1", 6)]);
        expect(rows(engine)).toEqual(["db    d1", "web   w1", "web   w2", "web   w3"]);
    });

    it("tell lines of the same millisecond apart", () => {
        const engine = engineOf(["web", "db"]);
        engine.append(0, [line("second", 0, { time: "2026-11-21T19:00:00.123456789Z" })]);
        engine.append(1, [line("first", 0, { time: "2026-11-21T19:00:00.123455Z" })]);
        expect(rows(engine)).toEqual(["db    first", "web   second"]);
    });

    it("stay at the line that is read when older ones come later", () => {
        const engine = engineOf(["web", "db"]);
        engine.append(0, many(50));
        engine.scrollTo(20);
        engine.append(1, [line("old", 3), line("new", 40)]);
        expect(rows(engine)[0]).toBe("web   line 20");
        expect(engine.frame().shown).toBe(52);
    });

    it("may become more, and all that is there stays as it is", () => {
        const engine = engineOf(["web"]);
        engine.append(
            0,
            Array.from({ length: 50 }, (_, index) => line(`${index} ${"x".repeat(35)}`, index)),
        );
        engine.setSettings({
            ...bare,
            filter: { ...noPattern, text: "[02468] x" },
            search: { ...noPattern, text: "^4. x" },
        });
        engine.scrollTo(10);
        engine.pause();
        expect(engine.frame()).toMatchObject({ endRow: 25, hits: 5 });
        expect(rows(engine)[0]).toBe(`20 ${"x".repeat(35)}`);
        engine.addSource("cache");
        const frame = engine.frame();
        // the name takes six columns: each line has two rows now
        expect(frame).toMatchObject({ paused: true, lines: 50, shown: 25, hits: 5, topRow: 20, endRow: 50 });
        expect(frame.plain[0]).toBe(`web     20 ${"x".repeat(29)}`);
        engine.append(1, [line("0 x early", 3), line("2 x late", 99)]);
        expect(engine.frame()).toMatchObject({ plain: frame.plain, lines: 52, shown: 25, fresh: 2 });
        engine.resume();
        expect(rows(engine)[4]).toBe("cache   2 x late");
        expect([...engine.text()][2]).toBe(`${at(3)} cache out 0 x early\n`);
    });

    it("give the same result in whatever pieces they come", () => {
        const one = engineOf(["a", "b", "c"], { lines: 10_000, bytes: 1e9 });
        const other = engineOf(["a", "b", "c"], { lines: 10_000, bytes: 1e9 });
        const streams = [0, 1, 2].map((source) =>
            Array.from({ length: 200 }, (_, index) => line(`${source}-${index}`, index * 3 + source)),
        );
        streams.forEach((lines, source) => void one.append(source, lines));
        for (let from = 0; from < 200; from += 7) {
            streams.forEach((lines, source) => void other.append(source, lines.slice(from, from + 7)));
        }
        expect([...other.text()]).toEqual([...one.text()]);
    });
});

describe("styles", () => {
    it("of what was found lie over those of the line", () => {
        const runs = { at: [0, 2, 6], sgr: ["", "31", ""] };
        expect(overlaid(runs, [[1, 4]], "7")).toEqual({ at: [0, 1, 4, 6], sgr: ["", "7", "31", ""] });
        expect(
            overlaid(
                runs,
                [
                    [0, 1],
                    [5, 8],
                ],
                "7",
            ),
        ).toEqual({ at: [0, 1, 2, 5, 8], sgr: ["7", "", "31", "7", ""] });
    });

    it("are cut with the text", () => {
        const runs = { at: [0, 2, 6], sgr: ["", "31", ""] };
        expect(styled("01234567", runs, 1, 4)).toBe("1\x1b[31m23\x1b[0m");
        expect(styled("01234567", runs, 6, 8)).toBe("67");
    });
});

describe("times", () => {
    it("are exact to less than a microsecond", () => {
        const time = exactTime("2026-11-21T19:00:00.123456789Z");
        expect(Math.floor(time)).toBe(start + 123);
        expect(Math.abs(time - start - 123.456789)).toBeLessThan(0.0006);
        expect(exactTime("2026-11-21T19:00:00Z")).toBe(start);
        expect(exactTime("2026-11-21T20:00:00.5+01:00")).toBe(start + 500);
        expect(exactTime("nonsense")).toBeNaN();
    });
});

describe("a flood", () => {
    it("of a million lines is taken within bounds and quickly", () => {
        const engine = engineOf(["one"], { lines: 50_000, bytes: 32 * 1024 * 1024 });
        const batch = Array.from({ length: 2000 }, (_, index) => line(`${index} ${"x".repeat(90)}`));
        const begin = process.cpuUsage();
        for (let round = 0; round < 500; round++) {
            engine.append(0, batch);
            engine.frame();
        }
        const { user, system } = process.cpuUsage(begin);
        expect(engine.frame().lines).toBe(50_000);
        // seconds for 100 MB
        expect((user + system) / 1e6).toBeLessThan(10);
    }, 60_000);
});
