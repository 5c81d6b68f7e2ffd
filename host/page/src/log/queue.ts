/** Something that was received and waits for its turn. */
interface Item {
    take: (data: unknown) => void;
    skip: (count: number) => void;
    data: unknown;
    /** lines that were dropped here; the data is gone then */
    dropped: number;
}

export interface QueueWorld {
    /** as soon as possible, but after what else is waiting */
    soon(task: () => void): void;
    now(): number;
}

/** Characters that may wait; what is more is dropped, oldest first. */
export const mostWaiting = 8 * 1024 * 1024;
const slice = 8;

/**
 * What WebSockets delivered, handled in slices of a few milliseconds: between them the page's wishes are heard, however
 * much comes. When more comes than can be handled the oldest lines are counted and dropped.
 */
export class MessageQueue {
    private items: Item[] = [];
    private head = 0;
    private waiting = 0;
    private isScheduled = false;

    constructor(private readonly world: QueueWorld) {}

    get length(): number {
        return this.items.length - this.head;
    }

    offer(data: unknown, take: (data: unknown) => void, skip: (count: number) => void): void {
        this.items.push({ take, skip, data, dropped: 0 });
        this.waiting += sizeOf(data);
        if (this.waiting > mostWaiting) {
            this.shorten();
        }
        this.schedule();
    }

    private schedule(): void {
        if (!this.isScheduled) {
            this.isScheduled = true;
            this.world.soon(() => {
                this.isScheduled = false;
                this.work();
            });
        }
    }

    private work(): void {
        const end = this.world.now() + slice;
        while (this.length > 0) {
            const item = this.items[this.head] as Item;
            this.items[this.head++] = undefined as never;
            if (item.dropped > 0) {
                item.skip(item.dropped);
            } else {
                this.waiting -= sizeOf(item.data);
                item.take(item.data);
            }
            if (this.world.now() >= end) {
                break;
            }
        }
        if (this.head > 1000 && this.head * 2 > this.items.length) {
            this.items = this.items.slice(this.head);
            this.head = 0;
        }
        if (this.length > 0) {
            this.schedule();
        }
    }

    /** Drops lines from the oldest messages until only half of what may wait is left. */
    private shorten(): void {
        const kept: Item[] = [];
        for (let index = this.head; index < this.items.length; index++) {
            const item = this.items[index] as Item;
            const lines = this.waiting > mostWaiting / 2 && item.dropped === 0 ? linesIn(item.data) : 0;
            if (lines > 0) {
                this.waiting -= sizeOf(item.data);
                item.data = null;
                item.dropped = lines;
            }
            const last = kept[kept.length - 1];
            if (item.dropped > 0 && last && last.dropped > 0 && last.skip === item.skip) {
                last.dropped += item.dropped;
            } else {
                kept.push(item);
            }
        }
        this.items = kept;
        this.head = 0;
    }
}

const sizeOf = (data: unknown) => (typeof data === "string" ? data.length : 0);

/** How many lines a message has, without reading it; 0 when it is another message. */
function linesIn(data: unknown): number {
    if (typeof data !== "string" || !/"lines"\s*:\s*\[/.test(data.slice(0, 200))) {
        return 0;
    }
    let count = 0;
    for (let at = data.indexOf('"cursor":'); at >= 0; at = data.indexOf('"cursor":', at + 9)) {
        count++;
    }
    return count;
}
