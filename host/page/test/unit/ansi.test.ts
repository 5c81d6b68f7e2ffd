import { describe, expect, it } from "vitest";
import { clean } from "../../src/log/ansi";

const plain = (text: string) => clean(text).plain;

describe("the sanitiser of logs", () => {
    it("leaves plain text alone", () => {
        expect(clean("temperature 21 °C, 温度")).toEqual({
            plain: "temperature 21 °C, 温度",
            styles: null,
            style: "",
        });
    });

    it("keeps colours as places and parameters", () => {
        expect(clean("a \x1b[1;31mred\x1b[0m b")).toEqual({
            plain: "a red b",
            styles: { at: [2, 5], sgr: ["1;31", ""] },
            style: "",
        });
    });

    it.each([
        ["38;5;208", "38;5;208"],
        ["38;2;1;2;3", "38;2;1;2;3"],
        ["38:2::1:2:3", "38;2;1;2;3"],
        ["48:5:17", "48;5;17"],
        ["97;44", "97;44"],
        ["4:3", "4"],
        ["21", "4"],
        ["7", "7"],
        ["9;3;2", "2;3;9"],
    ])("understands %s", (given, kept) => {
        expect(clean(`\x1b[${given}mx`).styles?.sgr[0]).toBe(kept);
    });

    it.each(["38;5;256", "38;2;1;2;999", "38;5", "38;2;1", "38", "5", "8", "99", "58;5;1"])(
        "takes %s for nothing",
        (given) => {
            expect(clean(`\x1b[${given}mx`)).toEqual({ plain: "x", styles: null, style: "" });
        },
    );

    it("puts styles together and takes them apart", () => {
        expect(clean("\x1b[1mA\x1b[32mB\x1b[22mC\x1b[39mD").styles).toEqual({
            at: [0, 1, 2, 3],
            sgr: ["1", "1;32", "32", ""],
        });
    });

    it("carries a style into the next part of a line", () => {
        const first = clean("\x1b[31mpart one");
        expect(first.style).toBe("31");
        expect(clean("part two", first.style)).toEqual({
            plain: "part two",
            styles: { at: [0], sgr: ["31"] },
            style: "31",
        });
        expect(clean("x\x1b[0my", first.style).styles).toEqual({ at: [0, 1], sgr: ["31", ""] });
    });

    it.each([
        ["cursor movement", "a\x1b[2Ab\x1b[10;10Hc\x1b[Kd", "abcd"],
        ["clearing the screen", "\x1b[2J\x1b[3Jtext\x1bc", "text"],
        ["private modes", "\x1b[?25l\x1b[?1049hx\x1b[?2004l", "x"],
        ["scroll regions and reports", "\x1b[5;10rx\x1b[6n\x1b[>c", "x"],
        ["a title, ended by a bell", "a\x1b]0;title\x07b", "ab"],
        ["a title, ended by ST", "a\x1b]2;title\x1b\\b", "ab"],
        ["links", "\x1b]8;;http://evil.example\x07click\x1b]8;;\x07", "click"],
        ["the clipboard", "\x1b]52;c;ZXZpbA==\x07x", "x"],
        ["device control", "\x1bP+q544e\x1b\\x", "x"],
        ["application commands", "\x1b_Gf=100;AAAA\x1b\\x\x1b^pm\x1b\\y\x1bXsos\x1b\\z", "xyz"],
        ["8-bit controls", "\x9b31mred\x9b0m \x9d0;t\x9cx\x85y", "red xy"],
        ["character sets and keypads", "\x1b(0lqk\x1b(B\x1b=\x1b>", "lqk"],
        ["bells, backspaces, nulls", "a\x07b\x08c\x00d\x7fe", "abcde"],
        ["marks that change the direction", "user\u202etxt.exe\u2066\u2069", "usertxt.exe"],
        ["an unfinished sequence", "text\x1b[31", "text"],
        ["a lone escape", "text\x1b", "text"],
        ["markup, which stays text", "<img src=x onerror=alert(1)>", "<img src=x onerror=alert(1)>"],
    ])("takes away %s", (_, given, kept) => {
        expect(plain(given)).toBe(kept);
    });

    it("does not hide what follows a string without an end", () => {
        expect(plain("before\x1b]0;the rest is shown")).toBe("before0;the rest is shown");
    });

    it("makes tabs into columns and carriage returns into nothing or a space", () => {
        expect(plain("a\tb\t\tc")).toBe("a       b               c");
        expect(plain("with windows end\r")).toBe("with windows end");
        expect(plain("10 %\r20 %\r")).toBe("10 % 20 %");
        expect(plain("a\u2028b")).toBe("a b");
    });

    it("keeps punctuation near the marks that it takes away", () => {
        expect(plain("\x07“quoted” – 50\u202f000 …")).toBe("“quoted” – 50\u202f000 …");
    });

    it("leaves no control character of anything", () => {
        let seed = 12345;
        const random = (below: number) => {
            seed = (seed * 1103515245 + 12345) % 2147483648;
            return seed % below;
        };
        const pieces = [
            "\x1b",
            "[",
            "]",
            "31",
            ";",
            "m",
            "\x07",
            "\\",
            "P",
            "\x9b",
            "\x9d",
            "\x90",
            "text",
            "é",
            "\t",
            "\r",
            "?",
            ":",
            "38;2",
            "\u202e",
            "H",
        ];
        for (let round = 0; round < 20_000; round++) {
            const source = Array.from({ length: 1 + random(14) }, () => pieces[random(pieces.length)]).join(
                "",
            );
            const { plain: text, styles } = clean(source);
            expect(text).not.toMatch(/[\x00-\x1f\x7f-\x9f\u2028-\u202e\u2066-\u2069]/);
            for (const sgr of styles?.sgr ?? []) {
                expect(sgr).toMatch(/^(\d+(;\d+)*)?$/);
            }
            for (const at of styles?.at ?? []) {
                expect(at).toBeLessThan(Math.max(1, text.length));
            }
        }
    });

    it("takes time in proportion to the text, whatever it is", () => {
        const nasty = [
            "\x1b[".repeat(50_000),
            "\x1b]".repeat(50_000),
            `\x1b[${"1;".repeat(50_000)}m`,
            "\x1b[31m".repeat(50_000),
            "\x1bP".repeat(30_000),
        ];
        const begin = process.cpuUsage();
        for (const text of nasty) {
            clean(text);
        }
        expect(process.cpuUsage(begin).user / 1e6).toBeLessThan(2);
    });
});
