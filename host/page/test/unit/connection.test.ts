import { beforeEach, describe, expect, it } from "vitest";
import { type ConnectionState, LogConnection, type Socket } from "../../src/log/connection";
import { logMessage } from "../../src/log/messages";

class FakeSocket implements Socket {
    onopen: Socket["onopen"] = null;
    onmessage: Socket["onmessage"] = null;
    onclose: Socket["onclose"] = null;
    onerror: Socket["onerror"] = null;
    closed = false;

    constructor(readonly path: string) {}

    close(): void {
        this.closed = true;
    }

    open(): void {
        this.onopen?.();
    }

    say(message: unknown): void {
        this.onmessage?.({ data: typeof message === "string" ? message : JSON.stringify(message) });
    }

    start(container = "id1"): void {
        this.open();
        this.say({ type: "start", container, tty: false });
    }

    breaks(): void {
        this.onclose?.({ code: 1006, reason: "" });
    }
}

const lineOf = (number: number) => ({
    cursor: `c${number}`,
    time: "2026-11-21T19:00:00Z",
    stream: "stdout",
    text: `line ${number}`,
});

describe("the connection of a log", () => {
    let sockets: FakeSocket[];
    let timers: { task: () => void; after: number }[];
    let now: number;
    let explanation: { status: number; detail: string } | null;
    let states: ConnectionState[];
    let lines: string[];
    let notes: string[];
    let skipped: number[];
    let connection: LogConnection;

    const state = () => states[states.length - 1] as ConnectionState;
    const socket = () => sockets[sockets.length - 1] as FakeSocket;
    const pass = () => {
        const timer = timers.shift();
        now += timer?.after ?? 0;
        timer?.task();
    };
    const settle = () => new Promise((resolve) => setTimeout(resolve));

    beforeEach(() => {
        sockets = [];
        timers = [];
        now = 1000;
        explanation = null;
        states = [];
        lines = [];
        notes = [];
        skipped = [];
        connection = new LogConnection(
            "clock",
            1000,
            {
                socket: (path) => {
                    const made = new FakeSocket(path);
                    sockets.push(made);
                    return made;
                },
                later: (task, after) => {
                    const timer = { task, after };
                    timers.push(timer);
                    return timer;
                },
                cancel: (timer) => {
                    timers = timers.filter((other) => other !== timer);
                },
                random: () => 0.5,
                now: () => now,
                explain: async () => explanation,
            },
            {
                state: (became) => states.push(became),
                lines: (message) => lines.push(...message.lines.map((line) => line.text)),
                skipped: (count) => skipped.push(count),
                note: (text) => notes.push(text),
            },
        );
        connection.open();
    });

    it("begins with the last lines", () => {
        expect(socket().path).toBe("/containers/clock/logs?tail=1000");
        socket().start();
        expect(state()).toEqual({ phase: "live" });
    });

    it("comes back behind the last line that it has", () => {
        socket().start();
        socket().say({ type: "lines", lines: [lineOf(1), lineOf(2)] });
        socket().breaks();
        expect(state()).toMatchObject({ phase: "waiting", reason: "The connection broke." });
        pass();
        expect(socket().path).toBe("/containers/clock/logs?after=c2");
        socket().start();
        socket().say({ type: "lines", lines: [lineOf(3)] });
        expect(lines).toEqual(["line 1", "line 2", "line 3"]);
        expect(notes).toEqual(["disconnected: The connection broke.", "connected again"]);
    });

    it("hears nothing more from a socket that it gave up", () => {
        const first = socket();
        first.start();
        first.say({ type: "lines", lines: [lineOf(1)] });
        connection.doubt();
        first.say({ type: "lines", lines: [lineOf(2)] });
        expect(lines).toEqual(["line 1"]);
        expect(first.closed).toBe(true);
        expect(state()).toMatchObject({ phase: "waiting", reason: "The daemon does not answer." });
    });

    it("waits longer each time, up to a limit, and less after it worked", async () => {
        explanation = { status: 0, detail: "The daemon cannot be reached." };
        const pauses: number[] = [];
        for (let round = 0; round < 8; round++) {
            socket().breaks();
            await settle();
            pauses.push(timers[0]?.after ?? 0);
            pass();
        }
        expect(pauses).toEqual([500, 1000, 2000, 4000, 8000, 15_000, 15_000, 15_000]);
        socket().start();
        now += 10_000;
        socket().breaks();
        expect(timers[0]?.after).toBe(500);
    });

    it("does not hammer a daemon that accepts and breaks at once", () => {
        const pauses: number[] = [];
        for (let round = 0; round < 4; round++) {
            socket().start();
            socket().breaks();
            pauses.push(timers[0]?.after ?? 0);
            pass();
        }
        expect(pauses).toEqual([500, 1000, 2000, 4000]);
        expect(notes.filter((note) => note.startsWith("disconnected"))).toHaveLength(4);
    });

    it.each([
        ["exited", "exit code 1", "ended"],
        ["removed", "", "ended"],
        ["podman", "", "waiting"],
        ["stopping", "", "waiting"],
        ["error", "disk full", "waiting"],
        ["unheard of", "", "waiting"],
    ])("after the end %s is right about what comes", (code, reason, phase) => {
        socket().start();
        socket().say({ type: "end", code, reason });
        expect(state().phase).toBe(phase);
        expect(timers).toHaveLength(phase === "waiting" ? 1 : 0);
    });

    it("goes on when a container that ended runs again", () => {
        socket().start();
        socket().say({ type: "lines", lines: [lineOf(7)] });
        socket().say({ type: "end", code: "exited", reason: "exit code 0" });
        connection.wake(true);
        expect(socket().path).toBe("/containers/clock/logs?after=c7");
        socket().start("id2");
        expect(notes).toContain("the container was made anew");
    });

    it("goes on when a container was started again, though it has ended again too", () => {
        const end = () => {
            socket().start();
            socket().say({ type: "lines", lines: [lineOf(sockets.length)] });
            socket().say({ type: "end", code: "exited", reason: "exit code 0" });
        };
        end();
        // what was started before the log was opened may have gone on since
        connection.wake(false, "2026-11-21T19:00:00Z");
        expect(sockets).toHaveLength(2);
        end();
        connection.wake(false, "2026-11-21T19:00:00Z");
        expect(sockets).toHaveLength(2);
        connection.wake(false, "2026-11-21T19:00:09Z");
        expect(socket().path).toBe("/containers/clock/logs?after=c2");
        // seen before the end was
        connection.wake(false, "2026-11-21T19:00:11Z");
        expect(sockets).toHaveLength(3);
        end();
        connection.wake(false, "2026-11-21T19:00:11Z");
        expect(sockets).toHaveLength(4);
        expect(lines).toEqual(["line 1", "line 2", "line 3"]);
    });

    it("is not asked for again because of a start that was known before", () => {
        connection.wake(false, "2026-11-21T19:00:00Z");
        socket().start();
        socket().say({ type: "end", code: "exited", reason: "exit code 0" });
        connection.wake(false, "2026-11-21T19:00:00Z");
        expect(sockets).toHaveLength(1);
        connection.wake(false, "2026-11-21T19:00:01Z");
        expect(sockets).toHaveLength(2);
    });

    it("stays ended when nobody tells when the container was started", () => {
        socket().start();
        socket().say({ type: "end", code: "exited", reason: "exit code 0" });
        connection.wake(false);
        expect(sockets).toHaveLength(1);
    });

    it("says an end once, however often it looks", () => {
        for (let round = 0; round < 3; round++) {
            socket().start();
            socket().say({ type: "end", code: "exited", reason: "exit code 0" });
            connection.wake(true);
        }
        expect(notes).toEqual(["the container does not run: exit code 0"]);
    });

    it("does not wait any longer once the daemon answers", () => {
        socket().start();
        socket().breaks();
        connection.wake(true);
        expect(sockets).toHaveLength(1);
        connection.hurry();
        expect(timers).toHaveLength(0);
        expect(sockets).toHaveLength(2);
        connection.hurry();
        expect(sockets).toHaveLength(2);
    });

    it.each([
        [{ status: 401, detail: "" }, { phase: "unknown" }],
        [
            { status: 404, detail: "There is no such container." },
            { phase: "ended", code: "removed", reason: "There is no such container." },
        ],
        [
            { status: 503, detail: "Podman does not answer." },
            { phase: "waiting", reason: "Podman does not answer." },
        ],
    ])("says why it was refused: %j", async (answer, expected) => {
        explanation = answer;
        socket().breaks();
        await settle();
        expect(state()).toMatchObject(expected);
    });

    it("passes on how many lines were skipped", () => {
        socket().start();
        socket().say({ type: "skipped", count: 12 });
        socket().say({ type: "skipped", count: -1 });
        expect(skipped).toEqual([12, -1]);
    });

    it.each([
        "no JSON",
        "[]1",
        '{"type":"lines"}',
        '{"type":"lines","lines":[{"text":1}]}',
        '{"type":"skipped","count":"x"}',
        "null",
    ])("gives up a connection that says %s, and tries again", (message) => {
        socket().start();
        socket().say(message);
        expect(state()).toMatchObject({ phase: "waiting" });
        expect((state() as { reason: string }).reason).toMatch(/not as expected/);
    });

    it("overlooks messages of a later version", () => {
        socket().start();
        socket().say({ type: "novelty" });
        expect(state().phase).toBe("live");
    });

    it("is silent after it was closed", () => {
        socket().start();
        const before = states.length;
        connection.close();
        socket().breaks();
        connection.wake(true);
        expect(states).toHaveLength(before);
        expect(sockets).toHaveLength(1);
    });
});

describe("messages of a log", () => {
    it("are bounded", () => {
        expect(() => logMessage(`"${"x".repeat(17 * 1024 * 1024)}"`)).toThrow(/at most 16 MiB/);
        expect(() => logMessage(new ArrayBuffer(3))).toThrow();
        expect(() =>
            logMessage(JSON.stringify({ type: "lines", lines: [{ ...lineOf(1), cursor: "x".repeat(201) }] })),
        ).toThrow();
    });

    it("give the cursor of the last line", () => {
        expect(logMessage(JSON.stringify({ type: "lines", lines: [lineOf(1), lineOf(2)] }))).toMatchObject({
            cursor: "c2",
        });
    });
});
