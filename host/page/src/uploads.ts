export interface Upload {
    name: string;
    sent: number;
    total: number;
    cancel: () => void;
}

/** The uploads that are going on, at most one of each kind. They outlive the views that began them. */
export class Uploads {
    private readonly going = new Map<string, Upload>();
    private readonly watchers = new Set<() => void>();

    get areGoing(): boolean {
        return this.going.size > 0;
    }

    of(kind: string): Upload | null {
        return this.going.get(kind) ?? null;
    }

    /** Calls after every change, until what it gives back is called. */
    watch(changed: () => void): () => void {
        this.watchers.add(changed);
        return () => this.watchers.delete(changed);
    }

    /** Sends a file, unless one of the kind is being sent. */
    async run<T>(
        kind: string,
        file: File,
        send: (onProgress: (sent: number, total: number) => void, signal: AbortSignal) => Promise<T>,
    ): Promise<T | null> {
        if (this.going.has(kind)) {
            return null;
        }
        const stop = new AbortController();
        let isOver = false;
        const progress = (sent: number, total: number) => {
            if (isOver) {
                return;
            }
            this.going.set(kind, { name: file.name, sent, total, cancel: () => stop.abort() });
            this.tell();
        };
        progress(0, file.size);
        try {
            return await send(progress, stop.signal);
        } finally {
            isOver = true;
            this.going.delete(kind);
            this.tell();
        }
    }

    private tell(): void {
        for (const changed of this.watchers) {
            changed();
        }
    }
}
