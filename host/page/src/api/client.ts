import { type Decoder, parseJson } from "./decode";

/** What went wrong, in words for the user. */
export class Problem extends Error {
    constructor(
        readonly status: number,
        readonly title: string,
        readonly detail: string,
    ) {
        super(detail);
        this.name = "Problem";
    }
}

export interface Request {
    method?: "GET" | "POST" | "PUT" | "PATCH" | "DELETE";
    json?: unknown;
    body?: string;
    contentType?: string;
    signal?: AbortSignal | undefined;
    /** milliseconds until the daemon counts as silent */
    patience?: number;
}

/** An answer that is longer than this is not read. */
export const longestAnswer = 16 * 1024 * 1024;
const patienceForReading = 10_000;
const patienceForActing = 15 * 60_000;

/** What any caught value says to the user. */
export function words(error: unknown): string {
    return error instanceof Error && error.message ? error.message : String(error);
}

export function problemOf(status: number, statusText: string, body: string): Problem {
    let title = statusText || `Status ${status}`;
    let detail = "";
    try {
        const problem: unknown = JSON.parse(body);
        if (typeof problem === "object" && problem !== null) {
            const { title: givenTitle, detail: givenDetail } = problem as Record<string, unknown>;
            if (typeof givenTitle === "string" && givenTitle) {
                title = givenTitle.slice(0, 300);
            }
            if (typeof givenDetail === "string") {
                detail = givenDetail.slice(0, 4000);
            }
        }
    } catch {
        // not a problem of the daemon: a proxy, or another server; the status has to do
    }
    return new Problem(status, title, detail || `The daemon answered "${title}" (${status}).`);
}

async function boundedText(response: Response): Promise<string> {
    if (!response.body) {
        return "";
    }
    const reader = response.body.getReader();
    const decoder = new TextDecoder();
    let text = "";
    let length = 0;
    for (;;) {
        const { done, value } = await reader.read();
        if (done) {
            return text + decoder.decode();
        }
        length += value.length;
        if (length > longestAnswer) {
            await reader.cancel();
            throw new Problem(0, "Too long", "The daemon's answer is too long to be shown.");
        }
        text += decoder.decode(value, { stream: true });
    }
}

export class Api {
    /** Called when the daemon does not know who asks. */
    onUnknown: () => void = () => {};

    constructor(
        private readonly fetcher: typeof fetch = (...parameters) => fetch(...parameters),
        readonly base = "/api/v1",
    ) {}

    async text(path: string, request: Request = {}): Promise<string> {
        const method = request.method ?? "GET";
        const patience = request.patience ?? (method === "GET" ? patienceForReading : patienceForActing);
        const stop = new AbortController();
        const giveUp = () => stop.abort();
        if (request.signal?.aborted) {
            giveUp();
        }
        request.signal?.addEventListener("abort", giveUp);
        let silent = false;
        const timer = setTimeout(() => {
            silent = true;
            giveUp();
        }, patience);
        const headers: Record<string, string> = {
            Accept: "application/json, application/problem+json;q=0.9, */*;q=0.1",
        };
        const init: RequestInit = {
            method,
            headers,
            signal: stop.signal,
            credentials: "same-origin",
            cache: "no-store",
        };
        if (request.json !== undefined) {
            headers["Content-Type"] = "application/json";
            init.body = JSON.stringify(request.json);
        } else if (request.body !== undefined) {
            headers["Content-Type"] = request.contentType ?? "application/octet-stream";
            init.body = request.body;
        }
        try {
            const response = await this.fetcher(this.base + path, init);
            const body = await boundedText(response);
            if (!response.ok) {
                const problem = problemOf(response.status, response.statusText, body);
                if (response.status === 401) {
                    this.onUnknown();
                }
                throw problem;
            }
            return body;
        } catch (error) {
            if (error instanceof Problem) {
                throw error;
            }
            if (request.signal?.aborted) {
                throw new Problem(0, "Cancelled", "Cancelled.");
            }
            if (silent) {
                throw new Problem(
                    0,
                    "No answer",
                    `The daemon did not answer within ${Math.round(patience / 1000)} s.`,
                );
            }
            throw new Problem(0, "No connection", "The daemon cannot be reached.");
        } finally {
            clearTimeout(timer);
            request.signal?.removeEventListener("abort", giveUp);
        }
    }

    async get<T>(path: string, decoder: Decoder<T>, signal?: AbortSignal): Promise<T> {
        return decoder(parseJson(await this.text(path, { signal })));
    }

    async send<T>(path: string, decoder: Decoder<T>, request: Request): Promise<T> {
        return decoder(parseJson(await this.text(path, { method: "POST", ...request })));
    }

    async act(path: string, request: Request = {}): Promise<void> {
        await this.text(path, { method: "POST", ...request });
    }

    /** Sends a file, telling how far it is. */
    upload(
        method: "POST" | "PUT",
        path: string,
        file: Blob,
        contentType: string,
        onProgress: (sent: number, total: number) => void,
        signal: AbortSignal,
    ): Promise<string> {
        return new Promise((resolve, reject) => {
            const request = new XMLHttpRequest();
            request.open(method, this.base + path);
            request.setRequestHeader("Content-Type", contentType);
            request.upload.onprogress = (event) =>
                onProgress(event.loaded, event.lengthComputable ? event.total : file.size);
            request.onload = () => {
                if (request.status >= 200 && request.status < 300) {
                    resolve(request.responseText);
                    return;
                }
                if (request.status === 401) {
                    this.onUnknown();
                }
                reject(problemOf(request.status, request.statusText, request.responseText));
            };
            request.onerror = () =>
                reject(new Problem(0, "No connection", "The connection broke before the file was there."));
            request.onabort = () => reject(new Problem(0, "Cancelled", "Cancelled; nothing was kept."));
            signal.addEventListener("abort", () => request.abort(), { once: true });
            request.send(file);
        });
    }
}

/** A name as a segment of a path. */
export const segment = encodeURIComponent;
