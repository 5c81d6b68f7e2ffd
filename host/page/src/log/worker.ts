/*
 * Receives, parses and keeps the lines of a log away from the page, so that the page stays quick whatever a container
 * writes.
 */
import { Api, Problem } from "../api/client";
import { type ConnectionState, LogConnection, type Socket, type World } from "./connection";
import { LogEngine, skippedText } from "./engine";
import { LineJoiner } from "./parts";
import type { FromWorker, ToWorker } from "./protocol";
import { MessageQueue } from "./queue";

const scope = self as unknown as DedicatedWorkerGlobalScope;
let engine: LogEngine | null = null;
let names: string[] = [];
let connections: LogConnection[] = [];
let states: ConnectionState[] = [];
let join: (name: string) => void = () => {};
let saidDirty = false;
const say = (message: FromWorker) => scope.postMessage(message);

function dirty(): void {
    if (!saidDirty) {
        saidDirty = true;
        say({ type: "dirty" });
    }
}

const turns = new MessageChannel();
const tasks: (() => void)[] = [];
turns.port1.onmessage = () => tasks.shift()?.();
const queue = new MessageQueue({
    soon(task) {
        tasks.push(task);
        turns.port2.postMessage(0);
    },
    now: () => performance.now(),
});

/** A WebSocket whose messages, and its end after them, wait in the queue. */
function queued(path: string, skip: (count: number) => void): Socket {
    const real = new WebSocket(path);
    const socket: Socket = {
        onopen: null,
        onmessage: null,
        onclose: null,
        onerror: null,
        close: () => real.close(),
    };
    const skipped = (count: number) => {
        if (socket.onmessage) {
            skip(count);
        }
    };
    real.onopen = () => socket.onopen?.();
    real.onmessage = ({ data }) =>
        queue.offer(data, (waited) => socket.onmessage?.({ data: waited }), skipped);
    real.onclose = (event) => queue.offer(event, () => socket.onclose?.(event), skipped);
    return socket;
}

function worldAt(base: string, skip: (container: string, count: number) => void): World {
    const api = new Api((...parameters) => fetch(...parameters), base);
    return {
        socket: (path, container) =>
            queued(base.replace(/^http/, "ws") + path, (count) => skip(container, count)),
        later: (task, milliseconds) => setTimeout(task, milliseconds),
        cancel: (timer) => clearTimeout(timer as number),
        random: Math.random,
        now: Date.now,
        async explain(container) {
            try {
                await api.text(`/containers/${encodeURIComponent(container)}/logs?tail=0`);
                return null;
            } catch (error) {
                return error instanceof Problem
                    ? { status: error.status, detail: error.detail }
                    : { status: 0, detail: String(error) };
            }
        },
    };
}

function open(message: ToWorker & { type: "open" }): void {
    for (const connection of connections) {
        connection.close();
    }
    names = [];
    connections = [];
    states = [];
    const current = new LogEngine([]);
    engine = current;
    engine.setSettings(message.settings);
    const joiners: LineJoiner[] = [];
    const note = (source: number, text: string) => {
        joiners[source]?.flush();
        const whose = names.length > 1 ? `${names[source]}: ` : "";
        current.note(source, whose + text, Date.now());
        dirty();
    };
    const skipped = (source: number, count: number) =>
        note(source, skippedText(count, "this page was too slow for them"));
    const world = worldAt(message.base, (name, count) => skipped(names.indexOf(name), count));
    join = (name) => {
        const source = names.push(name) - 1;
        states.push({ phase: "connecting" });
        current.addSource(name);
        const joiner = new LineJoiner((lines) => {
            current.append(source, lines);
            dirty();
        }, world);
        joiners.push(joiner);
        const connection = new LogConnection(name, message.tail, world, {
            state(state) {
                states[source] = state;
                if (state.phase === "unknown") {
                    say({ type: "unknown" });
                }
                dirty();
            },
            lines: (incoming) => joiner.take(incoming.lines),
            skipped: (count) => skipped(source, count),
            note: (text) => note(source, text),
        });
        connections.push(connection);
        connection.open();
    };
    message.containers.forEach(join);
}

scope.onmessage = (event: MessageEvent<ToWorker>) => {
    const message = event.data;
    if (message.type === "open") {
        open(message);
        return;
    }
    if (!engine) {
        return;
    }
    switch (message.type) {
        case "join":
            message.containers.forEach(join);
            break;
        case "settings":
            engine.setSettings(message.settings);
            break;
        case "window":
            engine.setWindow(message.columns, message.rows, message.left);
            break;
        case "scroll":
            engine.scrollTo(message.row);
            break;
        case "hold":
            engine.hold();
            break;
        case "end":
            engine.toEnd();
            break;
        case "pause":
            if (message.on) {
                engine.pause();
            } else {
                engine.resume();
            }
            break;
        case "find":
            engine.find(message.direction);
            break;
        case "clear":
            engine.clear();
            break;
        case "wake":
            for (const { name, isRunning, startedAt } of message.containers) {
                connections[names.indexOf(name)]?.wake(isRunning, startedAt);
            }
            return;
        case "hurry":
            for (const connection of connections) {
                connection.hurry();
            }
            return;
        case "doubt":
            for (const connection of connections) {
                connection.doubt();
            }
            return;
        case "text": {
            const parts = [...engine.text()];
            say({
                type: "text",
                blob: new Blob(parts, { type: "text/plain;charset=utf-8" }),
                lines: parts.length,
            });
            return;
        }
        case "frame":
            saidDirty = false;
            say({ type: "frame", frame: engine.frame(), states });
            return;
    }
    dirty();
};
