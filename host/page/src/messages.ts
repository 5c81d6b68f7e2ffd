import { Malformed, parseJson } from "./api/decode";
import { type Message, messages } from "./api/types";
import type { Socket } from "./log/connection";

export interface FeedWorld {
    socket(path: string): Socket;
    later(task: () => void, milliseconds: number): unknown;
    cancel(timer: unknown): void;
}

export type FeedState = "connecting" | "live" | "waiting";

/** More messages than these are not kept; the oldest go first. */
export const mostMessages = 2000;
const asked = 500;
const firstPause = 500;
const longestPause = 15_000;

/** The board's messages, live. After a break all that the daemon still has come again, instead of what was here. */
export class MessageFeed {
    private socket: Socket | null = null;
    private timer: unknown = null;
    private failures = 0;
    private list: Message[] = [];
    private closed = false;

    constructor(
        private readonly world: FeedWorld,
        private readonly changed: (list: readonly Message[], state: FeedState, problem: string) => void,
        /** called when a connection could not be made: perhaps the daemon does not know who asks */
        private readonly refused: () => void = () => {},
    ) {}

    open(): void {
        this.changed(this.list, "connecting", "");
        let isFirst = true;
        let isOpen = false;
        const socket = this.world.socket(`/messages?tail=${asked}`);
        this.socket = socket;
        socket.onopen = () => {
            isOpen = true;
            this.failures = 0;
        };
        socket.onmessage = (event) => {
            try {
                if (typeof event.data !== "string") {
                    throw new Malformed("a message", "a text");
                }
                const value = parseJson(event.data);
                if ((value as { type?: unknown } | null)?.type !== "messages") {
                    return;
                }
                const arrived = messages(value).messages;
                this.list = [...(isFirst ? [] : this.list), ...arrived].slice(-mostMessages);
                isFirst = false;
                this.changed(this.list, "live", "");
            } catch (error) {
                this.drop();
                this.retry(error instanceof Error ? error.message : String(error));
            }
        };
        socket.onclose = () => {
            this.drop();
            if (!isOpen) {
                this.refused();
            }
            this.retry(isOpen ? "The connection broke." : "The daemon cannot be reached.");
        };
    }

    /** The daemon answers: no need to wait any longer. */
    hurry(): void {
        if (!this.closed && !this.socket) {
            this.world.cancel(this.timer);
            this.open();
        }
    }

    /** Nobody answers at the other end, though the connection has not noticed. */
    doubt(): void {
        if (this.socket) {
            this.drop();
            this.retry("The daemon does not answer.");
        }
    }

    close(): void {
        this.closed = true;
        this.drop();
        this.world.cancel(this.timer);
    }

    private drop(): void {
        const socket = this.socket;
        this.socket = null;
        if (socket) {
            socket.onopen = socket.onmessage = socket.onclose = null;
            socket.close();
        }
    }

    private retry(problem: string): void {
        if (this.closed) {
            return;
        }
        const pause = Math.min(longestPause, firstPause * 2 ** Math.min(this.failures++, 10));
        this.changed(this.list, "waiting", problem);
        this.timer = this.world.later(() => this.open(), pause);
    }
}
