import { describe, expect, it, vi } from "vitest";
import { Api, longestAnswer, Problem, problemOf } from "../../src/api/client";
import * as types from "../../src/api/types";
import { bytes, counted, downloadName, duration, grouped, moment, shortId } from "../../src/format";
import { Deque } from "../../src/log/lines";
import { compile, noPattern } from "../../src/log/pattern";
import { noted, recall, usual } from "../../src/log/remembered";
import { columnRange, columnsOf, rowStarts, textColumns } from "../../src/log/width";
import { MessageFeed, mostMessages } from "../../src/messages";
import { addressOf, routeOf } from "../../src/route";

const answering = (body: string, status = 200) =>
    new Api(async () => new Response(status === 204 ? null : body, { status, statusText: "Text" }));

describe("the client of the interface", () => {
    it("gives what was asked for", async () => {
        const api = answering('{"name":"panel","right":"look","more":1}');
        expect(await api.get("/session", types.session)).toEqual({ name: "panel", right: "look" });
    });

    it.each([
        ["no JSON", "<html>"],
        ["something else", "[]"],
        ["a missing member", '{"name":"x"}'],
        ["a word that is not known", '{"name":"x","right":"fly"}'],
        ["a wrong type", '{"name":1,"right":"look"}'],
        ["a member of all objects", '{"__proto__":{"name":"x"},"right":"look"}'],
    ])("says that the answer is not as expected: %s", async (_, body) => {
        await expect(answering(body).get("/session", types.session)).rejects.toThrow(/not as expected/);
    });

    it("says where a list is wrong", async () => {
        await expect(
            answering('{"images":[{"id":"x","names":[1]}]}').get("/images", types.images),
        ).rejects.toThrow("images[0].names[0] should be a text");
    });

    it("shows a problem's detail", async () => {
        const api = answering(
            '{"type":"about:blank","title":"Conflict","status":409,"detail":"The service is disabled."}',
            409,
        );
        await expect(api.act("/service/start")).rejects.toMatchObject({
            status: 409,
            title: "Conflict",
            detail: "The service is disabled.",
        });
    });

    it("has words for problems without detail", () => {
        expect(problemOf(502, "Bad Gateway", "<html>")).toMatchObject({
            detail: 'The daemon answered "Bad Gateway" (502).',
        });
        expect(problemOf(500, "", '{"detail":7}').detail).toBe('The daemon answered "Status 500" (500).');
        expect(problemOf(500, "", `{"detail":"${"x".repeat(9000)}"}`).detail).toHaveLength(4000);
    });

    it("tells when the daemon does not know who asks", async () => {
        const api = answering("", 401);
        api.onUnknown = vi.fn();
        await expect(api.text("/service")).rejects.toBeInstanceOf(Problem);
        expect(api.onUnknown).toHaveBeenCalledOnce();
    });

    it("says when nobody answers", async () => {
        const away = new Api(async () => {
            throw new TypeError("Failed to fetch");
        });
        await expect(away.text("/service")).rejects.toThrow("The daemon cannot be reached.");
        const silent = new Api(
            (_, init) =>
                new Promise((_resolve, reject) => {
                    init?.signal?.addEventListener("abort", () => reject(new Error("aborted")));
                }),
        );
        await expect(silent.text("/service", { patience: 20 })).rejects.toThrow("did not answer within");
        const stop = new AbortController();
        const asked = silent.text("/service", { signal: stop.signal });
        stop.abort();
        await expect(asked).rejects.toThrow("Cancelled.");
    });

    it("does not read an answer without an end", async () => {
        let sent = 0;
        const endless = new ReadableStream({
            pull(controller) {
                sent += 1024 * 1024;
                controller.enqueue(new Uint8Array(1024 * 1024));
            },
        });
        const api = new Api(async () => new Response(endless));
        await expect(api.text("/containers")).rejects.toThrow("too long");
        expect(sent).toBeLessThan(longestAnswer + 4 * 1024 * 1024);
    });

    it("sends JSON and texts as what they are", async () => {
        const asked: RequestInit[] = [];
        const api = new Api(async (_, init) => {
            asked.push(init ?? {});
            return new Response("{}");
        });
        await api.act("/session", { json: { token: "t" } });
        await api.act("/compose-files/check", { body: "services:", contentType: "application/yaml" });
        expect(asked[0]).toMatchObject({
            method: "POST",
            body: '{"token":"t"}',
            headers: { "Content-Type": "application/json" },
        });
        expect(asked[1]).toMatchObject({
            body: "services:",
            headers: { "Content-Type": "application/yaml" },
        });
    });

    it("takes containers and plugins of a daemon that tells less of them", () => {
        const container = {
            id: "1",
            name: "clock",
            image: "localhost/busybox:1",
            state: "exited",
            status: "",
            created: "2026-11-21T19:00:00Z",
            exitCode: 0,
            project: "",
            ports: [],
        };
        expect(types.container(container)).toEqual(container);
        expect(types.container({ ...container, startedAt: "" }).startedAt).toBe("");
        expect(() => types.container({ ...container, startedAt: 7 })).toThrow(/not as expected/);
        const plugin = {
            fileName: "network.crp",
            path: "/network.crp",
            directory: "user",
            name: "network",
            version: "1.0.0",
            compatibleOs: "3.*",
            osCompatible: true,
            initPriority: 1,
            pluginType: 1,
            size: 1,
            created: 1,
            isDeactivated: true,
            isLoaded: false,
        };
        expect(types.plugin(plugin)).toEqual(plugin);
        expect(types.plugin({ ...plugin, deactivatedNext: false }).deactivatedNext).toBe(false);
    });

    it("takes an operation without a result", () => {
        expect(types.projectResult({ code: 6, ok: false, result: null })).toEqual({
            code: 6,
            ok: false,
            result: null,
        });
        expect(types.projectResult({ code: 0, ok: true, result: { Status: "Success" } }).result).toEqual({
            Status: "Success",
            Message: "",
            Containers: [],
        });
    });
});

describe("expressions", () => {
    const matches = (text: string, line: string, more = {}) =>
        compile({ ...noPattern, text, ...more }).pattern?.matches(line);

    it("match, or do not", () => {
        expect(matches("err(or)?", "an ERROR")).toBe(true);
        expect(matches("err", "an ERROR", { matchCase: true })).toBe(false);
        expect(matches("err", "fine", { inverted: true })).toBe(true);
        expect(matches("a.b", "axb", { regular: false })).toBe(false);
        expect(matches("a.b(", "a.b(c)", { regular: false })).toBe(true);
        expect(matches("^x", "yx")).toBe(false);
    });

    it("are none when there is nothing", () => {
        expect(compile(noPattern)).toEqual({ pattern: null, error: "" });
    });

    it.each(["(", "[a", "*", "a{2,1}", "\\", "(?<n>a)(?<n>b)"])("that are bad are called so: %s", (text) => {
        const { pattern, error } = compile({ ...noPattern, text });
        expect(pattern).toBeNull();
        expect(error).toMatch(/^Not a regular expression: \S/);
    });

    it("of other tools are taken too", () => {
        expect(compile({ ...noPattern, text: "a\\-b\\_c{" }).error).toBe("");
    });

    it("are bounded", () => {
        expect(compile({ ...noPattern, text: "x".repeat(1001) }).error).toMatch(/longer than/);
    });

    it("say where they match", () => {
        expect(compile({ ...noPattern, text: "a+" }).pattern?.ranges("aa b a", 10)).toEqual([
            [0, 2],
            [5, 6],
        ]);
        expect(compile({ ...noPattern, text: "a+" }).pattern?.ranges("a a a", 2)).toHaveLength(2);
        expect(compile({ ...noPattern, text: "x*" }).pattern?.ranges("aaa", 10)).toEqual([]);
        expect(compile({ ...noPattern, text: "a", inverted: true }).pattern?.ranges("bab", 10)).toEqual([]);
    });
});

describe("columns", () => {
    it("are counted as the terminal shows them", () => {
        expect(
            [..."aé温😀\u0301\u200d"].map((character) => columnsOf(character.codePointAt(0) ?? 0)),
        ).toEqual([1, 1, 2, 2, 0, 0]);
        expect(textColumns("a温b")).toBe(4);
    });

    it("divide texts into rows", () => {
        expect(rowStarts("0123456789", 4, false)).toEqual([0, 4, 8]);
        expect(rowStarts("", 4, false)).toEqual([0]);
        expect(rowStarts("a温温b", 4, true)).toEqual([0, 2]);
        expect(rowStarts("😀😀😀", 4, true)).toEqual([0, 4]);
        expect(rowStarts("e\u0301e\u0301", 1, true)).toEqual([0, 2]);
    });

    it("cut out what can be seen", () => {
        expect(columnRange("0123456789", 3, 4, false)).toEqual([3, 7]);
        expect(columnRange("012", 5, 4, false)).toEqual([3, 3]);
        expect(columnRange("温温温", 2, 3, true)).toEqual([1, 2]);
        expect(columnRange("温温温", 9, 3, true)).toEqual([3, 3]);
    });
});

describe("a queue", () => {
    it("takes and gives at both ends", () => {
        const queue = new Deque<number>();
        for (let round = 0; round < 20_000; round++) {
            queue.push(round);
            if (round >= 100) {
                expect(queue.shift()).toBe(round - 100);
            }
        }
        expect(queue.length).toBe(100);
        expect(queue.at(0)).toBe(19_900);
        expect(queue.at(-1)).toBeUndefined();
        expect(queue.pop()).toBe(19_999);
        expect(queue.firstBeyond((item) => item > 19_950)).toBe(51);
        queue.clear();
        expect([queue.length, queue.last, queue.pop(), queue.shift()]).toEqual([
            0,
            undefined,
            undefined,
            undefined,
        ]);
    });
});

describe("what is written for people", () => {
    it("has sizes", () => {
        expect([0, 1023, 1024, 1536, 10 * 1024, 1024 ** 2 - 1, 5 * 1024 ** 3, Number.NaN].map(bytes)).toEqual(
            ["0 B", "1023 B", "1.0 KiB", "1.5 KiB", "10 KiB", "1.0 MiB", "5.0 GiB", "?"],
        );
    });

    it("has counts", () => {
        expect(counted(1, "line")).toBe("1 line");
        expect(counted(12_345, "line")).toBe("12\u202f345 lines");
        expect(grouped(1_000_000)).toBe("1\u202f000\u202f000");
    });

    it("has times", () => {
        expect(moment(null)).toBe("–");
        expect(moment("nonsense")).toBe("–");
        expect(moment("2026-11-21T12:00:00Z")).toMatch(/^2026-11-2\d \d\d:00:00$/);
        expect([0, 59_000, 61_000, 3_700_000, 200_000_000, -5].map(duration)).toEqual([
            "0 s",
            "59 s",
            "1 min",
            "1 h 1 min",
            "2 days",
            "0 s",
        ]);
    });

    it("has names for files that say what is in them and go anywhere", () => {
        const time = new Date(2026, 10, 21, 19, 4, 5).getTime();
        expect(downloadName("clock", time)).toBe("clock_2026-11-21T19-04-05.log");
        expect(downloadName("../web, db:1", time)).toBe("web-db-1_2026-11-21T19-04-05.log");
        expect(downloadName("///", time)).toBe("log_2026-11-21T19-04-05.log");
    });

    it("has short ids", () => {
        expect(shortId("sha256:0123456789abcdef")).toBe("0123456789ab");
    });
});

describe("addresses", () => {
    it("lead to views", () => {
        expect(routeOf("")).toEqual({ view: "board" });
        expect(routeOf("#/nonsense")).toEqual({ view: "board" });
        expect(routeOf("#/containers")).toEqual({ view: "containers" });
        expect(routeOf(addressOf.container("clock"))).toEqual({ view: "container", name: "clock" });
        expect(routeOf(addressOf.log(["a", "b"]))).toEqual({
            view: "log",
            containers: ["a", "b"],
            asked: 2,
            project: "",
        });
        expect(routeOf(addressOf.projectLog("my project"))).toEqual({
            view: "log",
            containers: [],
            asked: 0,
            project: "my project",
        });
        expect(routeOf(addressOf.file("demo.yaml"))).toEqual({ view: "file", name: "demo.yaml" });
    });

    it("that somebody made up lead nowhere bad", () => {
        expect(routeOf("#/containers/..%2F..%2Fservice")).toEqual({ view: "containers" });
        expect(routeOf("#/containers/%zz")).toEqual({ view: "containers" });
        expect(routeOf("#/log?c=../x&c=ok&c=ok")).toEqual({
            view: "log",
            containers: ["ok"],
            asked: 1,
            project: "",
        });
        const many = routeOf(
            `#/log?${"c=a1&".repeat(5)}${Array.from({ length: 99 }, (_, index) => `c=n${index}`).join("&")}`,
        ) as { containers: string[]; asked: number };
        expect(many.containers).toHaveLength(16);
        expect(many.asked).toBe(100);
    });
});

describe("remembered settings", () => {
    it("come back as they were", () => {
        const changed = {
            ...usual,
            fontSize: 16,
            tail: 5000,
            view: { ...usual.view, stamps: "date" as const, wrap: false, streams: "stderr" as const },
        };
        expect(recall(noted(changed))).toEqual(changed);
    });

    it("do not bring back a filter, which would hide lines", () => {
        const filtered = {
            ...usual,
            view: { ...usual.view, filter: { text: "x", regular: false, matchCase: true, inverted: true } },
        };
        expect(recall(noted(filtered)).view.filter).toEqual({
            text: "",
            regular: false,
            matchCase: true,
            inverted: false,
        });
    });

    it.each([
        null,
        "",
        "no JSON",
        "null",
        "[]",
        '{"stamps":7,"fontSize":"big","tail":1e9,"filter":[],"streams":"x"}',
    ])("that are broken become the usual ones: %s", (stored) => {
        expect(recall(stored)).toEqual(usual);
    });
});

describe("the feed of messages", () => {
    const message = (text: string) => ({
        time: "2026-11-21T19:00:00Z",
        severity: 1,
        number: 0,
        source: "s",
        text,
    });
    const setUp = () => {
        const sockets: {
            closed: boolean;
            onopen: (() => void) | null;
            onmessage: ((event: { data: unknown }) => void) | null;
            onclose: ((event: never) => void) | null;
        }[] = [];
        const timers: { task: () => void; after: number }[] = [];
        const seen: { texts: string[]; state: string; problem: string }[] = [];
        const feed = new MessageFeed(
            {
                socket: () => {
                    const made = {
                        closed: false,
                        onopen: null,
                        onmessage: null,
                        onclose: null,
                        onerror: null,
                        close() {
                            made.closed = true;
                        },
                    };
                    sockets.push(made);
                    return made;
                },
                later: (task, after) => timers.push({ task, after }),
                cancel: () => timers.shift(),
            },
            (list, state, problem) => seen.push({ texts: list.map((item) => item.text), state, problem }),
        );
        feed.open();
        const say = (value: unknown) =>
            sockets[sockets.length - 1]?.onmessage?.({ data: JSON.stringify(value) });
        return { feed, sockets, timers, seen, say, last: () => seen[seen.length - 1] };
    };

    it("begins anew after a break, without doubles", () => {
        const { sockets, timers, say, last } = setUp();
        sockets[0]?.onopen?.();
        say({ type: "messages", messages: [message("a")] });
        say({ type: "messages", messages: [message("b")] });
        expect(last()).toEqual({ texts: ["a", "b"], state: "live", problem: "" });
        sockets[0]?.onclose?.(undefined as never);
        expect(last()).toMatchObject({ texts: ["a", "b"], state: "waiting" });
        timers.shift()?.task();
        sockets[1]?.onopen?.();
        say({ type: "messages", messages: [message("a"), message("b"), message("c")] });
        expect(last()?.texts).toEqual(["a", "b", "c"]);
    });

    it("keeps a bounded number", () => {
        const { say, last } = setUp();
        for (let round = 0; round < 5; round++) {
            say({
                type: "messages",
                messages: Array.from({ length: 900 }, (_, index) => message(`${round} ${index}`)),
            });
        }
        expect(last()?.texts).toHaveLength(mostMessages);
        expect(last()?.texts[mostMessages - 1]).toBe("4 899");
    });

    it("gives up a connection when the daemon is silent, and goes on as soon as it answers", () => {
        const { feed, sockets, timers, say, last } = setUp();
        sockets[0]?.onopen?.();
        say({ type: "messages", messages: [message("a")] });
        feed.hurry();
        expect(sockets).toHaveLength(1);
        feed.doubt();
        expect(last()).toEqual({ texts: ["a"], state: "waiting", problem: "The daemon does not answer." });
        expect(sockets[0]).toMatchObject({ closed: true, onmessage: null });
        feed.doubt();
        expect(timers).toHaveLength(1);
        feed.hurry();
        expect(timers).toHaveLength(0);
        expect(last()?.state).toBe("connecting");
        say({ type: "messages", messages: [message("a"), message("b")] });
        expect(last()).toEqual({ texts: ["a", "b"], state: "live", problem: "" });
        feed.close();
        feed.hurry();
        feed.doubt();
        expect(sockets).toHaveLength(2);
        expect(last()?.state).toBe("live");
    });

    it("says what is wrong with what comes", () => {
        const { say, last } = setUp();
        say({ type: "messages", messages: [{ text: 7 }] });
        expect(last()?.state).toBe("waiting");
        expect(last()?.problem).toMatch(/not as expected/);
    });
});
