import type { ConnectionState } from "./connection";
import type { Frame, ViewSettings } from "./engine";
import type { FromWorker, ToWorker } from "./protocol";

export interface LogEvents {
    frame(frame: Frame, states: ConnectionState[]): void;
    text(blob: Blob): void;
    unknown(): void;
    /** the worker was lost in thought and was replaced; filter and search are empty now */
    stuck(): void;
}

interface Opening {
    base: string;
    containers: string[];
    tail: number;
}

const longestThought = 5000;
const pulseEvery = 3000;

/** The worker behind a log view; asks it for at most one frame per animation frame. */
export class LogClient {
    private worker: Worker | null = null;
    private waiting = false;
    private scheduled = 0;
    private dirty = false;
    private watch: ReturnType<typeof setTimeout> | undefined;
    private readonly pulse: ReturnType<typeof setInterval>;
    private window: ToWorker | null = null;

    constructor(
        private readonly opening: Opening,
        private settings: ViewSettings,
        private readonly events: LogEvents,
    ) {
        this.start();
        // a worker that is lost in thought says nothing; only asking shows it
        this.pulse = setInterval(() => this.wanted(), pulseEvery);
    }

    send(message: ToWorker): void {
        if (message.type === "settings") {
            this.settings = message.settings;
        }
        if (message.type === "window") {
            this.window = message;
        }
        if (message.type === "join") {
            this.opening.containers = [...this.opening.containers, ...message.containers];
        }
        this.worker?.postMessage(message);
        if (message.type === "settings") {
            this.wanted();
        }
    }

    /** Takes those containers in that are not there yet. */
    join(containers: readonly string[]): void {
        const missing = containers.filter((name) => !this.opening.containers.includes(name));
        if (missing.length > 0) {
            this.send({ type: "join", containers: missing });
        }
    }

    close(): void {
        clearInterval(this.pulse);
        clearTimeout(this.watch);
        cancelAnimationFrame(this.scheduled);
        this.worker?.terminate();
        this.worker = null;
    }

    private start(): void {
        const worker = new Worker(new URL("./worker.ts", import.meta.url), { type: "module" });
        worker.onmessage = (event: MessageEvent<FromWorker>) => this.receive(event.data);
        this.worker = worker;
        this.waiting = false;
        this.send({ type: "open", ...this.opening, settings: this.settings });
        if (this.window) {
            this.send(this.window);
        }
        this.wanted();
    }

    private receive(message: FromWorker): void {
        switch (message.type) {
            case "dirty":
                this.wanted();
                break;
            case "frame":
                clearTimeout(this.watch);
                this.waiting = false;
                this.events.frame(message.frame, message.states);
                if (this.dirty) {
                    this.wanted();
                }
                break;
            case "text":
                this.events.text(message.blob);
                break;
            case "unknown":
                this.events.unknown();
                break;
        }
    }

    private wanted(): void {
        if (this.waiting || this.scheduled) {
            this.dirty = true;
            return;
        }
        this.dirty = false;
        this.scheduled = requestAnimationFrame(() => {
            this.scheduled = 0;
            this.waiting = true;
            this.send({ type: "frame" });
            clearTimeout(this.watch);
            this.watch = setTimeout(() => this.replace(), longestThought);
        });
    }

    /** An expression can keep the worker busy for years; then only another worker helps. */
    private replace(): void {
        const nothing = (pattern: ViewSettings["filter"]) => ({ ...pattern, text: "" });
        if (!this.settings.filter.text && !this.settings.search.text) {
            return;
        }
        this.worker?.terminate();
        this.settings = {
            ...this.settings,
            filter: nothing(this.settings.filter),
            search: nothing(this.settings.search),
        };
        this.events.stuck();
        this.start();
    }
}
