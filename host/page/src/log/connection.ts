import { words } from "../api/client";
import { type LogMessage, logMessage } from "./messages";

/** What a WebSocket offers, as far as it is used here. */
export interface Socket {
    onopen: (() => void) | null;
    onmessage: ((event: { data: unknown }) => void) | null;
    onclose: ((event: { code: number; reason: string }) => void) | null;
    onerror: (() => void) | null;
    close(): void;
}

export interface World {
    socket(path: string, container: string): Socket;
    later(task: () => void, milliseconds: number): unknown;
    cancel(timer: unknown): void;
    random(): number;
    now(): number;
    /** Why a log cannot be had: the browser does not tell for a WebSocket. Null when nothing speaks against it. */
    explain(container: string): Promise<{ status: number; detail: string } | null>;
}

export type ConnectionState =
    | { phase: "connecting" }
    | { phase: "live" }
    | { phase: "waiting"; until: number; reason: string }
    | { phase: "ended"; code: string; reason: string }
    | { phase: "unknown" };

export interface Listener {
    state(state: ConnectionState): void;
    lines(message: LogMessage & { type: "lines" }): void;
    skipped(count: number): void;
    note(text: string): void;
}

const firstPause = 500;
const longestPause = 15_000;
const settledAfter = 5_000;

/** The log of one container, kept connected. */
export class LogConnection {
    private socket: Socket | null = null;
    private timer: unknown = null;
    private failures = 0;
    private cursor = "";
    private container = "";
    private closed = false;
    private opened = 0;
    private state: ConnectionState = { phase: "connecting" };
    private wasBroken = false;
    /** the container's start that was known when the log was last asked for */
    private startedAt: string | undefined;
    /** the end was said, and nothing came since */
    private saidEnd = false;

    constructor(
        private readonly name: string,
        private readonly tail: number,
        private readonly world: World,
        private readonly listener: Listener,
    ) {}

    open(): void {
        this.connect();
    }

    close(): void {
        this.closed = true;
        this.drop();
        this.world.cancel(this.timer);
    }

    /** What is known of the container: a log that ended goes on when it runs, or was started since. */
    wake(isRunning: boolean, startedAt?: string): void {
        if (this.state.phase === "connecting") {
            // known before the log is
            this.startedAt ??= startedAt;
        } else if (
            !this.closed &&
            this.state.phase === "ended" &&
            (isRunning || startedAt !== this.startedAt)
        ) {
            this.startedAt = startedAt;
            this.connect();
        }
    }

    /** The daemon answers: no need to wait any longer. */
    hurry(): void {
        if (!this.closed && this.state.phase === "waiting") {
            this.world.cancel(this.timer);
            this.connect();
        }
    }

    /** Nobody answers at the other end, though the connection has not noticed. */
    doubt(): void {
        if (
            !this.closed &&
            this.socket &&
            (this.state.phase === "live" || this.state.phase === "connecting")
        ) {
            this.drop();
            this.retry("The daemon does not answer.");
        }
    }

    private connect(): void {
        this.timer = null;
        this.become({ phase: "connecting" });
        const query = this.cursor ? `after=${encodeURIComponent(this.cursor)}` : `tail=${this.tail}`;
        let socket: Socket;
        try {
            socket = this.world.socket(
                `/containers/${encodeURIComponent(this.name)}/logs?${query}`,
                this.name,
            );
        } catch (error) {
            this.retry(words(error));
            return;
        }
        this.socket = socket;
        let open = false;
        socket.onopen = () => {
            open = true;
        };
        socket.onmessage = (event) => {
            if (socket === this.socket) {
                this.receive(event.data);
            }
        };
        socket.onerror = null;
        socket.onclose = () => {
            if (socket !== this.socket) {
                return;
            }
            this.drop();
            if (open) {
                this.retry("The connection broke.");
            } else {
                void this.ask();
            }
        };
    }

    private receive(data: unknown): void {
        let message: LogMessage | null;
        try {
            message = logMessage(data);
        } catch (error) {
            this.drop();
            this.retry(words(error));
            return;
        }
        switch (message?.type) {
            case "start":
                if (this.container && this.container !== message.container) {
                    this.listener.note("the container was made anew");
                } else if (this.wasBroken) {
                    this.listener.note("connected again");
                }
                this.wasBroken = false;
                this.container = message.container;
                this.opened = this.world.now();
                this.become({ phase: "live" });
                break;
            case "lines":
                if (message.lines.length > 0) {
                    this.cursor = message.cursor;
                    this.saidEnd = false;
                    this.listener.lines(message);
                }
                break;
            case "skipped":
                this.listener.skipped(message.count);
                break;
            case "end":
                this.ended(message.code, message.reason);
                break;
            default:
                break;
        }
    }

    private ended(code: string, reason: string): void {
        this.drop();
        if (code === "exited" || code === "removed") {
            this.failures = 0;
            this.wasBroken = false;
            if (!this.saidEnd) {
                const exit = reason ? `: ${reason}` : "";
                this.listener.note(
                    code === "exited" ? `the container does not run${exit}` : "the container was removed",
                );
                this.saidEnd = true;
            }
            this.become({ phase: "ended", code, reason });
            return;
        }
        const standing: Record<string, string> = {
            podman: "Podman went away.",
            stopping: "The daemon ends.",
        };
        this.retry(reason || standing[code] || "The log ended with an error.");
    }

    /** The daemon refused, or was not there. */
    private async ask(): Promise<void> {
        this.become({ phase: "connecting" });
        let answer: { status: number; detail: string } | null;
        try {
            answer = await this.world.explain(this.name);
        } catch {
            answer = { status: 0, detail: "The daemon cannot be reached." };
        }
        if (this.closed || this.socket || this.timer !== null) {
            return;
        }
        if (answer?.status === 401) {
            this.become({ phase: "unknown" });
        } else if (answer?.status === 404) {
            this.become({ phase: "ended", code: "removed", reason: answer.detail });
        } else {
            this.retry(answer?.detail || "The connection was refused.");
        }
    }

    private retry(reason: string): void {
        if (this.opened > 0 && this.world.now() - this.opened > settledAfter) {
            this.failures = 0;
        }
        if (this.opened > 0) {
            if (!this.wasBroken) {
                this.listener.note(`disconnected: ${reason}`);
            }
            this.wasBroken = true;
        }
        this.opened = 0;
        const pause =
            Math.min(longestPause, firstPause * 2 ** Math.min(this.failures, 10)) *
            (0.8 + 0.4 * this.world.random());
        this.failures++;
        this.become({ phase: "waiting", until: this.world.now() + pause, reason });
        this.timer = this.world.later(() => this.connect(), pause);
    }

    private drop(): void {
        const socket = this.socket;
        this.socket = null;
        if (socket) {
            socket.onopen = socket.onmessage = socket.onclose = socket.onerror = null;
            try {
                socket.close();
            } catch {
                // it is closed already
            }
        }
    }

    private become(state: ConnectionState): void {
        this.state = state;
        this.listener.state(state);
    }
}
