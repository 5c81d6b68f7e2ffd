import { beforeEach, describe, expect, it } from "vitest";
import { MessageQueue, mostWaiting } from "../../src/log/queue";

describe("the queue of what was received", () => {
    let tasks: (() => void)[];
    let now: number;
    let queue: MessageQueue;
    let taken: unknown[];
    let skipped: number[];

    const take = (data: unknown) => {
        taken.push(data);
        now += 3;
    };
    const skip = (count: number) => void skipped.push(count);
    const lines = (count: number, size: number) =>
        JSON.stringify({
            type: "lines",
            lines: Array.from({ length: count }, () => ({ cursor: "c", text: "x".repeat(size) })),
        });

    beforeEach(() => {
        tasks = [];
        now = 0;
        taken = [];
        skipped = [];
        queue = new MessageQueue({ soon: (task) => void tasks.push(task), now: () => now });
    });

    it("gives everything in its order, some at a time", () => {
        for (let index = 0; index < 10; index++) {
            queue.offer(`${index}`, take, skip);
        }
        expect(taken).toEqual([]);
        expect(tasks).toHaveLength(1);
        tasks.shift()?.();
        expect(taken).toEqual(["0", "1", "2"]);
        while (tasks.length > 0) {
            tasks.shift()?.();
        }
        expect(taken).toEqual(["0", "1", "2", "3", "4", "5", "6", "7", "8", "9"]);
        expect(queue.length).toBe(0);
    });

    it("drops the oldest lines when too much waits, and says how many", () => {
        queue.offer('{"type":"start"}', take, skip);
        const one = lines(100, 10_000);
        let offered = 0;
        for (; offered * one.length < 3 * mostWaiting; offered++) {
            queue.offer(one, take, skip);
        }
        queue.offer("the end", take, skip);
        while (tasks.length > 0) {
            tasks.shift()?.();
        }
        expect(taken[0]).toBe('{"type":"start"}');
        expect(taken[taken.length - 1]).toBe("the end");
        const came = taken.length - 2;
        expect(came * one.length).toBeLessThanOrEqual(mostWaiting);
        expect(came).toBeGreaterThan(0);
        expect(skipped).toEqual([(offered - came) * 100]);
    });

    it("tells containers apart when it drops", () => {
        const others: number[] = [];
        const skipOther = (count: number) => void others.push(count);
        const big = lines(10, 100_000);
        for (let index = 0; index < 20; index++) {
            queue.offer(big, take, index % 2 ? skip : skipOther);
        }
        while (tasks.length > 0) {
            tasks.shift()?.();
        }
        const sum = (counts: number[]) => counts.reduce((one, other) => one + other, 0);
        expect(sum(skipped) + sum(others) + taken.length * 10).toBe(200);
        expect(sum(skipped)).toBeGreaterThan(0);
        expect(sum(others)).toBeGreaterThan(0);
    });
});
