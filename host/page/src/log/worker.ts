/*
 * Receives, parses and keeps the lines of a log away from the page, so that the page stays quick whatever a container
 * writes. Each message of a WebSocket is handled as it comes and at once: while that lasts, the browser takes no more
 * from the network, and the daemon notices that this client is slow and skips lines.
 */
import { Api, Problem } from "../api/client";
import { type ConnectionState, LogConnection, type World } from "./connection";
import { LogEngine, skippedText } from "./engine";
import type { FromWorker, ToWorker } from "./protocol";

const scope = self as unknown as DedicatedWorkerGlobalScope;
let engine: LogEngine | null = null;
let names: string[] = [];
let connections: LogConnection[] = [];
let states: ConnectionState[] = [];
let saidDirty = false;
const say = (message: FromWorker) => scope.postMessage(message);

function dirty(): void {
    if (!saidDirty) {
        saidDirty = true;
        say({ type: "dirty" });
    }
}

function worldAt(base: string): World {
    const api = new Api((...parameters) => fetch(...parameters), base);
    return {
        socket: (path) => new WebSocket(base.replace(/^http/, "ws") + path) as never,
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
    names = message.containers;
    const current = new LogEngine(names);
    engine = current;
    engine.setSettings(message.settings);
    states = names.map(() => ({ phase: "connecting" }));
    const world = worldAt(message.base);
    connections = names.map((name, source) => {
        const whose = names.length > 1 ? `${name}: ` : "";
        return new LogConnection(name, message.tail, world, {
            state(state) {
                states[source] = state;
                if (state.phase === "unknown") {
                    say({ type: "unknown" });
                }
                dirty();
            },
            lines(incoming) {
                current.append(source, incoming.lines);
                dirty();
            },
            skipped(count) {
                current.note(
                    source,
                    whose + skippedText(count, "this page was too slow for them"),
                    Date.now(),
                );
                dirty();
            },
            note(text) {
                current.note(source, whose + text, Date.now());
                dirty();
            },
        });
    });
    for (const connection of connections) {
        connection.open();
    }
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
        case "settings":
            engine.setSettings(message.settings);
            break;
        case "window":
            engine.setWindow(message.columns, message.rows, message.left);
            break;
        case "scroll":
            engine.scrollTo(message.row);
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
            for (const name of message.containers) {
                connections[names.indexOf(name)]?.wake();
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
