import { beforeEach, describe, expect, it } from "vitest";
import type { IncomingLine } from "../../src/log/engine";
import { LineJoiner } from "../../src/log/parts";

type Stream = IncomingLine["stream"];

function piece(text: string, partial: boolean, stream: Stream = "stdout", time = "t"): IncomingLine {
    return { time, stream, text, partial };
}

describe("lines in parts", () => {
    let given: IncomingLine[][];
    let waiting: (() => void)[];
    let joiner: LineJoiner;

    beforeEach(() => {
        given = [];
        waiting = [];
        joiner = new LineJoiner((lines) => given.push(lines), {
            later(task, milliseconds) {
                expect(milliseconds).toBe(250);
                waiting.push(task);
                return task;
            },
            cancel(timer) {
                waiting = waiting.filter((task) => task !== timer);
            },
        });
    });

    it("become one, with the time of the first", () => {
        joiner.take([
            piece("one", true, "stdout", "1"),
            piece(" line", false, "stdout", "2"),
            piece("two", false),
        ]);
        expect(given).toEqual([[piece("one line", false, "stdout", "1"), piece("two", false)]]);
        expect(waiting).toHaveLength(0);
    });

    it("become one across messages", () => {
        joiner.take([piece("whole", false), piece("a", true)]);
        joiner.take([piece("b", true)]);
        joiner.take([piece("c", false)]);
        expect(given).toEqual([[piece("whole", false)], [piece("abc", false)]]);
        expect(waiting).toHaveLength(0);
    });

    it("are told apart by stream", () => {
        joiner.take([piece("out", true), piece("err", true, "stderr"), piece("!", false)]);
        expect(given).toEqual([[piece("out!", false)]]);
        joiner.take([piece("?", false, "stderr")]);
        expect(given[1]).toEqual([piece("err?", false, "stderr")]);
    });

    it("are shown as they are when the rest does not come soon", () => {
        joiner.take([piece("password: ", true)]);
        expect(given).toEqual([]);
        expect(waiting).toHaveLength(1);
        waiting.shift()?.();
        expect(given).toEqual([[piece("password: ", true)]]);
        joiner.take([piece("ok", false)]);
        expect(given[1]).toEqual([piece("ok", false)]);
    });

    it("do not wait longer because more comes", () => {
        joiner.take([piece(".", true)]);
        joiner.take([piece(".", true), piece("other", false, "stderr")]);
        joiner.take([piece(".", true)]);
        expect(waiting).toHaveLength(1);
        waiting.shift()?.();
        expect(given).toEqual([[piece("other", false, "stderr")], [piece("...", true)]]);
        joiner.take([piece(".", true)]);
        expect(waiting).toHaveLength(1);
    });

    it("are given when nothing more will come", () => {
        joiner.take([piece("rest", true)]);
        joiner.flush();
        expect(given).toEqual([[piece("rest", true)]]);
        expect(waiting).toHaveLength(0);
        joiner.flush();
        expect(given).toHaveLength(1);
    });

    it("do not become longer than a bound", () => {
        const block = "x".repeat(40 * 1024);
        joiner.take([piece(block, true), piece(block, true), piece("y", false)]);
        expect(given[0]?.map((line) => [line.text.length, line.partial])).toEqual([
            [block.length, true],
            [block.length + 1, false],
        ]);
    });
});
