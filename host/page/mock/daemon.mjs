/*
 * A stand-in for the daemon: the same interface, the same headers, nothing behind it. Its containers do what a script
 * says, and under /mock/ tests change what it does.
 */
import { createReadStream, existsSync, readFileSync, statSync } from "node:fs";
import { createServer } from "node:http";
import { extname, join, normalize } from "node:path";
import { fileURLToPath } from "node:url";
import { WebSocketServer } from "ws";

const distribution = fileURLToPath(new URL("../dist", import.meta.url));
const policy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; font-src 'self'; connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
const kinds = {
    ".html": "text/html; charset=utf-8",
    ".js": "text/javascript",
    ".css": "text/css",
    ".svg": "image/svg+xml",
};
const name = /^[A-Za-z0-9][A-Za-z0-9._-]{0,127}$/;
const keptLines = 20_000;

const hex = (seed) =>
    Array.from({ length: 64 }, (_, index) =>
        ((seed * 31 + index * 7 + (index % 5) * seed) % 16).toString(16),
    ).join("");
const nanoseconds = () => {
    const now = performance.timeOrigin + performance.now();
    const whole = Math.floor(now);
    const rest = String(Math.floor((now - whole) * 1e6)).padStart(6, "0");
    return new Date(whole).toISOString().replace("Z", `${rest}Z`);
};

/** What the containers of the mock write. */
export const scripts = {
    clock: { every: 500, line: (count) => ({ text: `tick ${count} ${new Date().toISOString()}` }) },
    web: {
        every: 300,
        line: (count) =>
            count % 7 === 0
                ? { stream: "stderr", text: `request ${count} failed: upstream timed out` }
                : {
                      text: `\x1b[32mINFO\x1b[0m request \x1b[1m${count}\x1b[0m answered with \x1b[33m200\x1b[0m in ${count % 40} ms`,
                  },
    },
    db: {
        every: 700,
        line: (count) => ({ text: `checkpoint ${count} complete: wrote ${count * 3} buffers` }),
    },
};

const firstState = () => ({
    tokens: new Map([
        ["act-token", { name: "operator", right: "act" }],
        ["look-token", { name: "panel", right: "look" }],
    ]),
    sessions: new Map(),
    service: {
        version: "1.0.0",
        enabled: true,
        state: "running",
        problem: "",
        startedAt: new Date(Date.now() - 4_000_000).toISOString(),
        settings: { tcpPort: 0, cores: 1, maximumCores: 2 },
        podman: { answering: true, version: "5.8.6", askedAt: new Date().toISOString(), problem: "" },
        restarts: {
            policy: "on-failure",
            limit: 5,
            inARow: 0,
            nextAt: null,
            history: [
                {
                    time: new Date(Date.now() - 9_000_000).toISOString(),
                    cause: "Podman's Unix socket service ended with signal 9",
                },
            ],
        },
    },
    checks: [
        { id: "enabled", title: "Service enabled", verdict: "ok", found: "yes", remedy: "" },
        {
            id: "storage",
            title: "User storage",
            verdict: "ok",
            found: "/dev/sda1 ext4, 5.1 GiB free",
            remedy: "",
        },
        {
            id: "firmware",
            title: "Firmware image",
            verdict: "ok",
            found: "squashfs, Podman 5.8.6",
            remedy: "",
        },
        {
            id: "certificates",
            title: "Certificates",
            verdict: "warning",
            found: "server.crt ends in 12 days",
            remedy: "Put a new certificate into /mnt/cfdrive/containers/certs",
        },
        {
            id: "cores",
            title: "Cores",
            verdict: "ok",
            found: "core 1 belongs to containers alone",
            remedy: "",
        },
        { id: "clock", title: "Clock", verdict: "unknown", found: "no time server was asked", remedy: "" },
    ],
    strangers: [{ pid: 812, command: "top" }],
    containers: [
        { name: "clock", image: "localhost/busybox:1", state: "running", project: "", ports: [] },
        {
            name: "demo-web-1",
            image: "plant.example/web/frontend:2.14.3",
            state: "running",
            project: "demo",
            ports: ["0.0.0.0:8080->80/tcp", "0.0.0.0:8443->443/tcp"],
        },
        {
            name: "demo-db-1",
            image: "localhost/postgres:16",
            state: "running",
            project: "demo",
            ports: ["5432/tcp"],
        },
        { name: "import", image: "localhost/import:3", state: "exited", project: "", ports: [], exitCode: 1 },
        { name: "flood", image: "localhost/flood:1", state: "exited", project: "", ports: [], exitCode: 0 },
    ].map((container, index) => ({
        id: hex(index + 3),
        created: new Date(Date.now() - 90_000_000 * (index + 1)).toISOString(),
        exitCode: 0,
        status: "",
        since: Date.now() - 180_000,
        started: Date.now() - 180_000,
        ...container,
    })),
    images: [
        {
            id: hex(40),
            names: ["localhost/busybox:1"],
            size: 4_402_345,
            created: "2026-10-01T10:00:00Z",
            containers: 1,
        },
        {
            id: hex(41),
            names: ["plant.example/web/frontend:2.14.3", "localhost/web:latest"],
            size: 182_402_345,
            created: "2026-09-11T08:30:00Z",
            containers: 1,
        },
        { id: hex(42), names: [], size: 92_100_000, created: "2026-08-01T10:00:00Z", containers: 0 },
    ],
    files: new Map([
        [
            "demo.yaml",
            {
                text: 'services:\n  web:\n    image: localhost/web:latest\n    ports: ["8080:80"]\n  db:\n    image: localhost/postgres:16\n',
                modified: "2026-11-21T19:00:00Z",
            },
        ],
        [
            "spare.yml",
            { text: "services:\n  one:\n    image: localhost/busybox:1\n", modified: "2026-11-20T07:00:00Z" },
        ],
    ]),
    switched: new Map(),
    plugins: [
        {
            fileName: "network.crp",
            path: "/mnt/cfdrive/containers/crp/network.crp",
            directory: "user",
            name: "network",
            version: "1.0.0",
            compatibleOs: "3.*",
            osCompatible: true,
            initPriority: 10,
            pluginType: 1,
            size: 81_920,
            created: 1_795_000_000,
            isDeactivated: false,
            isLoaded: true,
        },
        {
            fileName: "sensors.crp",
            path: "/usr/share/crp/sensors.crp",
            directory: "system",
            name: "sensors",
            version: "2.1.0",
            compatibleOs: "2.*",
            osCompatible: false,
            initPriority: 20,
            pluginType: 1,
            size: 122_880,
            created: 1_790_000_000,
            isDeactivated: true,
            isLoaded: false,
        },
    ],
    messages: [
        {
            time: new Date(Date.now() - 600_000).toISOString(),
            severity: 1,
            number: 0,
            source: "ContainerRTE",
            text: "Quolex Container Utils: All containers started.",
        },
        {
            time: new Date(Date.now() - 300_000).toISOString(),
            severity: 2,
            number: 2,
            source: "ContainerRTE",
            text: "Quolex Container Utils: server.crt ends in 12 days.",
        },
        {
            time: new Date(Date.now() - 100_000).toISOString(),
            severity: 3,
            number: 1,
            source: "ContainerRTE",
            text: "Quolex Container Utils: Failed to spawn Podman service.",
        },
    ],
    faults: new Map(),
    slow: 0,
    hangs: false,
});

class Answer extends Error {
    constructor(status, detail) {
        super(detail);
        this.status = status;
    }
}

export class MockDaemon {
    state = firstState();
    server = null;
    logs = new Map();
    watchers = new Set();
    timers = [];
    port = 0;

    async listen(port = 0) {
        this.server = createServer((request, response) => void this.handle(request, response));
        this.sockets = new WebSocketServer({ noServer: true, perMessageDeflate: false });
        this.server.on("upgrade", (request, socket, head) => void this.upgrade(request, socket, head));
        await new Promise((resolve, reject) => {
            this.server.once("error", reject);
            this.server.listen(port || this.port, "127.0.0.1", resolve);
        });
        this.port = this.server.address().port;
        for (const container of this.state.containers) {
            this.log(container.name);
        }
        this.timers.push(setInterval(() => this.tick(), 100));
        return `http://127.0.0.1:${this.port}/`;
    }

    /** Ends as a daemon does: logs are told, then nobody answers. */
    async close(word = "stopping") {
        for (const timer of this.timers.splice(0)) {
            clearInterval(timer);
        }
        for (const log of this.logs.values()) {
            clearInterval(log.flood);
            log.flood = undefined;
            for (const reader of log.readers) {
                if (word) {
                    reader.send(JSON.stringify({ type: "end", code: word, reason: "" }));
                    reader.close();
                } else {
                    reader.terminate();
                }
            }
            log.readers.clear();
        }
        for (const watcher of this.watchers) {
            watcher.terminate();
        }
        this.watchers.clear();
        this.server?.closeAllConnections();
        await new Promise((resolve) => (this.server ? this.server.close(resolve) : resolve()));
        this.server = null;
    }

    log(container) {
        let log = this.logs.get(container);
        if (!log) {
            log = { lines: [], readers: new Set(), next: 1, last: 0, count: 0, flood: undefined };
            this.logs.set(container, log);
            const script = this.scriptOf(container);
            if (script) {
                for (let count = 1; count <= 30; count++) {
                    log.count = count;
                    this.write(container, [script.line(count)]);
                }
            }
            if (container === "import") {
                this.write(container, [
                    { text: "reading \x1b]8;;http://evil.example\x07recipes\x1b]8;;\x07 <b>bold</b>" },
                    {
                        stream: "stderr",
                        text: "\x1b[2J\x1b[H\x1b]0;title\x07Traceback (most recent call last):",
                    },
                    { stream: "stderr", text: "\x1b[31mValueError\x1b[0m: recipe 17 has no name\x07" },
                ]);
            }
        }
        return log;
    }

    scriptOf(container) {
        return container === "clock"
            ? scripts.clock
            : container.includes("web")
              ? scripts.web
              : container.includes("db")
                ? scripts.db
                : null;
    }

    /** Lines of a container: `{text, stream?, time?, partial?}`. */
    write(container, lines) {
        const log = this.log(container);
        const made = lines.map((line) => ({
            cursor: `${container}-${log.next++}`,
            time: line.time ?? nanoseconds(),
            stream: line.stream ?? "stdout",
            text: line.text,
            ...(line.partial ? { partial: true } : {}),
        }));
        this.keep(log, made);
        this.send(log, JSON.stringify({ type: "lines", lines: made }), made.length);
    }

    keep(log, lines) {
        log.lines.push(...lines);
        if (log.lines.length > keptLines) {
            log.lines.splice(0, log.lines.length - keptLines);
        }
    }

    /** To those that can take it; the others hear later how much they missed. */
    send(log, message, count) {
        for (const reader of log.readers) {
            if (reader.bufferedAmount > 4_000_000) {
                reader.skipped = (reader.skipped ?? 0) + count;
                continue;
            }
            if (reader.skipped) {
                reader.send(JSON.stringify({ type: "skipped", count: reader.skipped }));
                reader.skipped = 0;
            }
            reader.send(message);
        }
    }

    /** Writes as fast as asked: bytes of text in a second. */
    flood(container, rate) {
        const log = this.log(container);
        clearInterval(log.flood);
        log.flood = undefined;
        if (!(rate > 0)) {
            return;
        }
        const text = "x".repeat(90);
        let owed = 0;
        let last = performance.now();
        log.flood = setInterval(() => {
            const now = performance.now();
            owed = Math.min(owed + ((now - last) / 1000) * rate, rate / 4);
            last = now;
            while (owed > 0) {
                const count = 2000;
                const time = nanoseconds();
                const lines = [];
                let json = "";
                for (let index = 0; index < count; index++) {
                    const cursor = `${container}-${log.next++}`;
                    json += `${index ? "," : ""}{"cursor":"${cursor}","time":"${time}","stream":"stdout","text":"${++log.count} ${text}"}`;
                    if (index >= count - 100) {
                        lines.push({ cursor, time, stream: "stdout", text: `${log.count} ${text}` });
                    }
                }
                this.keep(log, lines);
                this.send(log, `{"type":"lines","lines":[${json}]}`, count);
                owed -= count * 98;
            }
        }, 10);
    }

    tick() {
        if (this.state.hangs) {
            return;
        }
        const now = Date.now();
        for (const container of this.state.containers) {
            const script = this.scriptOf(container.name);
            const log = this.log(container.name);
            if (script && container.state === "running" && now - log.last >= script.every && !log.quiet) {
                log.last = now;
                log.count++;
                this.write(container.name, [script.line(log.count)]);
            }
        }
    }

    tell(message) {
        this.state.messages.push({
            time: new Date().toISOString(),
            severity: 1,
            number: 0,
            source: "ContainerRTE",
            ...message,
        });
        for (const watcher of this.watchers) {
            watcher.send(JSON.stringify({ type: "messages", messages: this.state.messages.slice(-1) }));
        }
    }

    find(wanted) {
        const found = this.state.containers.find(
            (container) => container.name === wanted || container.id === wanted,
        );
        if (!found) {
            throw new Answer(404, `There is no container "${wanted}".`);
        }
        return found;
    }

    shown(container) {
        const { since, started, ...rest } = container;
        const minutes = Math.max(1, Math.round((Date.now() - since) / 60_000));
        return {
            ...rest,
            // to the second
            startedAt: started ? new Date(started - (started % 1000)).toISOString() : "",
            status:
                container.state === "running"
                    ? `Up ${minutes} minutes`
                    : container.state === "exited"
                      ? `Exited (${container.exitCode}) ${minutes} minutes ago`
                      : "Created",
        };
    }

    become(container, state, exitCode = 0) {
        if (container.state === state) {
            return;
        }
        container.state = state;
        container.since = Date.now();
        container.exitCode = exitCode;
        if (state === "running") {
            container.started = Date.now();
        }
        if (state === "exited") {
            this.endLog(container.name, "exited", `exit code ${exitCode}`);
        }
    }

    endLog(container, code, reason) {
        const log = this.log(container);
        for (const reader of log.readers) {
            reader.send(JSON.stringify({ type: "end", code, reason }));
            reader.close();
        }
        log.readers.clear();
    }

    who(request) {
        const bearer = /^Bearer (.+)$/.exec(request.headers.authorization ?? "")?.[1];
        if (bearer) {
            return this.state.tokens.get(bearer);
        }
        const cookie = /(?:^|; )qx-session=([^;]+)/.exec(request.headers.cookie ?? "")?.[1];
        return this.state.tokens.get(this.state.sessions.get(cookie));
    }

    /** Comes back when the mock does not hang, or no longer. */
    async awake() {
        while (this.state.hangs) {
            await new Promise((resolve) => setTimeout(resolve, 50));
        }
    }

    async upgrade(request, socket, head) {
        socket.on("error", () => {});
        await this.awake();
        const refuse = (status, title, detail) => {
            const body = JSON.stringify({ type: "about:blank", title, status, detail });
            socket.end(
                `HTTP/1.1 ${status} ${title}\r\nContent-Type: application/problem+json\r\nContent-Length: ${Buffer.byteLength(body)}\r\nConnection: close\r\n\r\n${body}`,
            );
        };
        const url = new URL(request.url, "http://localhost");
        const path = url.pathname.replace(/^\/api\/v1/, "");
        if (!this.who(request)) {
            refuse(401, "Unauthorized", "Sign in first.");
            return;
        }
        if (path === "/messages") {
            this.sockets.handleUpgrade(request, socket, head, (client) => {
                const tail = Number(url.searchParams.get("tail") ?? 100);
                client.send(
                    JSON.stringify({
                        type: "messages",
                        messages: tail > 0 ? this.state.messages.slice(-tail) : [],
                    }),
                );
                this.watchers.add(client);
                client.on("close", () => this.watchers.delete(client));
            });
            return;
        }
        const wanted = decodeURIComponent(/^\/containers\/([^/]+)\/logs$/.exec(path)?.[1] ?? "");
        const container = this.state.containers.find((other) => other.name === wanted || other.id === wanted);
        const fault = this.state.faults.get("LOG");
        if (fault) {
            refuse(fault.status, "Fault", fault.detail);
            return;
        }
        if (!container) {
            refuse(404, "Not Found", `There is no container "${wanted}".`);
            return;
        }
        this.sockets.handleUpgrade(request, socket, head, (client) => {
            const log = this.log(container.name);
            const after = url.searchParams.get("after");
            const tail = Math.min(5000, Number(url.searchParams.get("tail") ?? 100));
            const index = after === null ? -1 : log.lines.findIndex((line) => line.cursor === after);
            const lines =
                after !== null ? log.lines.slice(index + 1) : tail > 0 ? log.lines.slice(-tail) : [];
            client.send(JSON.stringify({ type: "start", container: container.id, tty: false }));
            for (let from = 0; from < lines.length; from += 500) {
                client.send(JSON.stringify({ type: "lines", lines: lines.slice(from, from + 500) }));
            }
            if (container.state !== "running") {
                client.send(
                    JSON.stringify({
                        type: "end",
                        code: "exited",
                        reason: `exit code ${container.exitCode}`,
                    }),
                );
                client.close();
                return;
            }
            log.readers.add(client);
            client.on("close", () => log.readers.delete(client));
        });
    }

    async handle(request, response) {
        const url = new URL(request.url, "http://localhost");
        try {
            if (url.pathname.startsWith("/mock/")) {
                await this.script(url.pathname.slice(6), JSON.parse((await bodyOf(request)) || "{}"));
                response.writeHead(204).end();
            } else if (url.pathname.startsWith("/api/v1/")) {
                await this.awake();
                await this.api(request, response, url, url.pathname.slice(7));
            } else {
                serve(url.pathname, response);
            }
        } catch (error) {
            const status = error instanceof Answer ? error.status : 500;
            if (!response.headersSent) {
                response.writeHead(status, { "Content-Type": "application/problem+json" });
            }
            response.end(
                JSON.stringify({
                    type: "about:blank",
                    title: `Status ${status}`,
                    status,
                    detail: error.message,
                }),
            );
        }
    }

    /** What tests ask of the mock. */
    async script(what, given) {
        switch (what) {
            case "write":
                this.write(given.container, given.lines);
                break;
            case "flood":
                this.flood(given.container, given.rate);
                break;
            case "quiet":
                this.log(given.container).quiet = given.on;
                break;
            case "state":
                this.become(this.find(given.container), given.state, given.exitCode);
                break;
            case "once": {
                const container = this.find(given.container);
                this.become(container, "running");
                this.write(container.name, given.lines);
                this.become(container, "exited");
                break;
            }
            case "container":
                this.state.containers.push(this.made(given));
                break;
            case "end":
                this.endLog(given.container, given.code, given.reason ?? "");
                break;
            case "fault":
                if (given.status) {
                    this.state.faults.set(given.path, given);
                } else {
                    this.state.faults.delete(given.path);
                }
                break;
            case "set":
                Object.assign(this.state[given.part], given.values);
                break;
            case "slow":
                this.state.slow = given.milliseconds;
                break;
            case "hang":
                this.state.hangs = given.on;
                break;
            case "forget":
                this.state.sessions.clear();
                break;
            case "reset":
                for (const log of this.logs.values()) {
                    clearInterval(log.flood);
                    for (const reader of log.readers) {
                        reader.terminate();
                    }
                }
                this.logs.clear();
                this.state = firstState();
                for (const container of this.state.containers) {
                    this.log(container.name);
                }
                break;
            case "restart":
                setTimeout(async () => {
                    await this.close(given.word ?? "stopping");
                    for (const [plugin, isOff] of this.state.switched) {
                        plugin.isDeactivated = isOff;
                    }
                    this.state.switched.clear();
                    setTimeout(() => void this.listen(), given.away);
                }, 20);
                break;
            case "message":
                this.tell(given);
                break;
            default:
                throw new Answer(404, "The mock cannot do that.");
        }
    }

    async api(request, response, url, path) {
        const { state } = this;
        const method = request.method;
        const json = (value, status = 200, headers = {}) => {
            response.writeHead(status, {
                "Content-Type": "application/json",
                "Cache-Control": "no-store",
                ...headers,
            });
            response.end(JSON.stringify(value));
        };
        const done = (status = 204) => response.writeHead(status).end();
        const parts = path.slice(1).split("/").map(decodeURIComponent);

        if (path === "/session" && method === "POST") {
            const { token } = JSON.parse(await bodyOf(request));
            const who = state.tokens.get(token);
            if (!who) {
                throw new Answer(401, "There is no such token. Make one on the board.");
            }
            const cookie = hex(state.sessions.size + Math.floor(Math.random() * 1e6));
            state.sessions.set(cookie, token);
            json(who, 200, { "Set-Cookie": `qx-session=${cookie}; HttpOnly; SameSite=Strict; Path=/` });
            return;
        }
        if (path === "/session" && method === "DELETE") {
            response.writeHead(204, { "Set-Cookie": "qx-session=; Max-Age=0; Path=/" }).end();
            return;
        }
        const who = this.who(request);
        if (!who) {
            throw new Answer(401, "Sign in first.");
        }
        if (method !== "GET" && who.right !== "act") {
            throw new Answer(403, "This token may only look.");
        }
        const fault = state.faults.get(path) ?? state.faults.get(`${method} ${path}`);
        if (fault) {
            if (fault.body !== undefined) {
                response.writeHead(fault.status, { "Content-Type": "application/json" }).end(fault.body);
                return;
            }
            throw new Answer(fault.status, fault.detail);
        }
        const [first, second, third] = parts;
        switch (`${method} ${first}${third ? "/*/*" : second ? "/*" : ""}`) {
            case "GET session":
                json(who);
                return;
            case "GET service":
                json(state.service);
                return;
            case "POST service/*":
                if (second === "enable" || second === "disable") {
                    state.service.enabled = second === "enable";
                } else if (second === "start") {
                    if (!state.service.enabled) {
                        throw new Answer(409, "The service is disabled. Enable it first.");
                    }
                    state.service.state = "running";
                    state.service.problem = "";
                    state.service.startedAt = new Date().toISOString();
                    state.service.podman = { ...state.service.podman, answering: true, problem: "" };
                } else if (second === "stop") {
                    for (const container of state.containers.filter((other) => other.state === "running")) {
                        this.become(container, "exited", 137);
                    }
                    state.service.state = "stopped";
                    state.service.problem = "Somebody stopped the service.";
                    state.service.startedAt = null;
                    state.service.podman = {
                        ...state.service.podman,
                        answering: false,
                        problem: state.service.problem,
                    };
                } else {
                    throw new Answer(404, "There is no such action.");
                }
                json(state.service);
                return;
            case "PATCH service/*": {
                const change = JSON.parse(await bodyOf(request));
                if (change.tcpPort === 80 || change.tcpPort === 111) {
                    throw new Answer(400, `Port ${change.tcpPort} is taken by the board.`);
                }
                Object.assign(state.service.settings, change);
                json(state.service);
                return;
            }
            case "GET check": {
                const order = ["ok", "warning", "error"];
                const worst = Math.max(...state.checks.map((check) => order.indexOf(check.verdict)), 0);
                json({ verdict: order[worst], checks: state.checks });
                return;
            }
            case "GET cores":
                json({
                    cores: [
                        { core: 0, owner: "linux" },
                        { core: 1, owner: "containers" },
                        { core: 2, owner: "hypervisor" },
                        { core: 3, owner: "hypervisor" },
                        { core: 4, owner: "unused" },
                    ],
                    configured: state.service.settings.cores,
                    maximum: state.service.settings.maximumCores,
                    effective: "1",
                    strangers: state.strangers,
                });
                return;
            case "GET messages":
                json({ messages: state.messages.slice(-Number(url.searchParams.get("tail") ?? 100)) });
                return;
            case "GET containers":
                json({ containers: state.containers.map((container) => this.shown(container)) });
                return;
            case "GET containers/*": {
                const container = this.find(second);
                json({
                    Id: container.id,
                    Name: container.name,
                    Created: container.created,
                    ImageName: container.image,
                    State: {
                        Status: container.state,
                        Pid: 4711,
                        ExitCode: container.exitCode,
                        StartedAt: new Date(container.started).toISOString(),
                    },
                    Config: { Cmd: ["sh", "-c", "while true; do date; sleep 1; done"], Env: ["PATH=/bin"] },
                    HostConfig: { RestartPolicy: { Name: "always" }, CpusetCpus: "1" },
                });
                return;
            }
            case "GET containers/*/*": {
                const container = this.find(second);
                const tail = url.searchParams.get("tail") ?? "100";
                const all = this.log(container.name).lines;
                const lines = tail === "all" ? all : Number(tail) > 0 ? all.slice(-Number(tail)) : [];
                response.writeHead(200, { "Content-Type": "text/plain; charset=utf-8" });
                response.end(
                    lines
                        .map(
                            (line) =>
                                `${url.searchParams.get("timestamps") === "true" ? `${line.time} ` : ""}${line.text}\n`,
                        )
                        .join(""),
                );
                return;
            }
            case "POST containers/*/*": {
                const container = this.find(second);
                if (third === "restart") {
                    this.become(container, "exited", 0);
                }
                this.become(container, third === "stop" ? "exited" : "running", third === "stop" ? 143 : 0);
                done();
                return;
            }
            case "DELETE containers/*": {
                const container = this.find(second);
                if (container.state === "running" && url.searchParams.get("force") !== "true") {
                    throw new Answer(409, `${container.name} runs. Stop it first.`);
                }
                state.containers = state.containers.filter((other) => other !== container);
                this.endLog(container.name, "removed", "");
                done();
                return;
            }
            case "GET images":
                json({ images: state.images });
                return;
            case "POST images": {
                const length = await lengthOf(request);
                await new Promise((resolve) => setTimeout(resolve, state.slow));
                if (length < 100) {
                    throw new Answer(422, "Podman cannot read the archive: unexpected end of file.");
                }
                state.images.push({
                    id: hex(60 + state.images.length),
                    names: ["localhost/loaded:1"],
                    size: length,
                    created: new Date().toISOString(),
                    containers: 0,
                });
                json({ names: ["localhost/loaded:1"] });
                return;
            }
            case "DELETE images/*": {
                const image = state.images.find(
                    (other) => other.id === second || other.names.includes(second),
                );
                if (!image) {
                    throw new Answer(404, `There is no image "${second}".`);
                }
                if (image.containers > 0 && url.searchParams.get("force") !== "true") {
                    throw new Answer(409, `${image.containers} container uses the image.`);
                }
                state.images = state.images.filter((other) => other !== image);
                done();
                return;
            }
            case "GET compose-files":
                json({
                    files: [...state.files]
                        .sort()
                        .map(([file, { text, modified }]) => ({ name: file, size: text.length, modified })),
                });
                return;
            case "POST compose-files/*": {
                const text = await bodyOf(request);
                const valid = /^services:\n( +\S.*\n?)+/m.test(text) && !text.includes("\t");
                json({ valid, output: valid ? "" : "validating: services must be a mapping" });
                return;
            }
            case "GET compose-files/*": {
                const file = state.files.get(second);
                if (!file) {
                    throw new Answer(404, `There is no file "${second}".`);
                }
                response.writeHead(200, { "Content-Type": "application/yaml" }).end(file.text);
                return;
            }
            case "PUT compose-files/*": {
                if (!name.test(second) || !/\.ya?ml$/.test(second)) {
                    throw new Answer(400, "A compose file's name ends in .yaml or .yml.");
                }
                const isNew = !state.files.has(second);
                state.files.set(second, { text: await bodyOf(request), modified: new Date().toISOString() });
                done(isNew ? 201 : 204);
                return;
            }
            case "DELETE compose-files/*":
                if (!state.files.delete(second)) {
                    throw new Answer(404, `There is no file "${second}".`);
                }
                done();
                return;
            case "GET projects":
                json({ projects: [...state.files.keys()].sort().map((file) => this.project(file)) });
                return;
            case "POST projects/*/*":
                json(this.operate(second, third));
                return;
            case "GET plugins":
            case "POST plugins/*":
                json({
                    plugins: state.plugins.map((plugin) => ({
                        ...plugin,
                        deactivatedNext: state.switched.get(plugin) ?? plugin.isDeactivated,
                    })),
                });
                return;
            case "PUT plugins/*": {
                const length = await lengthOf(request);
                if (length < 10) {
                    throw new Answer(422, "This is no plugin file: it has no squashfs in it.");
                }
                const known = state.plugins.some((plugin) => plugin.fileName === second);
                if (!known) {
                    state.plugins.push({
                        ...state.plugins[0],
                        fileName: second,
                        name: second.replace(/\..*$/, ""),
                        path: `/mnt/cfdrive/containers/crp/${second}`,
                        size: length,
                        isLoaded: false,
                    });
                }
                done(known ? 204 : 201);
                return;
            }
            case "DELETE plugins/*":
                state.plugins = state.plugins.filter((plugin) => plugin.fileName !== second);
                done();
                return;
            case "POST plugins/*/*":
                for (const plugin of state.plugins.filter(
                    (other) =>
                        other.fileName === second && other.directory === url.searchParams.get("directory"),
                )) {
                    // in effect after the next start only
                    state.switched.set(plugin, third === "deactivate");
                }
                done();
                return;
            default:
                throw new Answer(404, "There is no such thing.");
        }
    }

    project(file) {
        const project = file.replace(/\.ya?ml$/, "");
        const containers = this.state.containers
            .filter((container) => container.project === project)
            .map(({ name: called, state }) => ({ name: called, state }));
        const running = containers.filter((container) => container.state === "running").length;
        const word =
            containers.length === 0
                ? "none"
                : running === containers.length
                  ? "running"
                  : running > 0
                    ? "partly"
                    : containers.every((container) => container.state === "created")
                      ? "created"
                      : "stopped";
        return { file, name: project, state: word, containers };
    }

    /** A new container. */
    made(given) {
        return {
            id: hex(this.state.containers.length + 20),
            image: "localhost/busybox:1",
            state: "created",
            status: "",
            created: new Date().toISOString(),
            exitCode: 0,
            project: "",
            ports: [],
            since: Date.now(),
            started: given.state === "running" ? Date.now() : 0,
            ...given,
        };
    }

    operate(file, operation) {
        const { state } = this;
        if (!state.files.has(file)) {
            return { code: 4, ok: false, result: null };
        }
        const { name: project, containers } = this.project(file);
        if (operation === "create" && containers.length === 0) {
            state.containers.push(this.made({ name: `${project}-one-1`, project }));
            return {
                code: 1,
                ok: true,
                result: {
                    Status: "Success",
                    Message: "Containers created successfully.",
                    Containers: [{ Name: `${project}-one-1`, State: "created" }],
                },
            };
        }
        const mine = state.containers.filter((container) => container.project === project);
        if (operation === "start" || operation === "stop") {
            const wanted = operation === "start" ? "running" : "exited";
            const changed = mine.filter((container) => container.state !== wanted);
            for (const container of changed) {
                this.become(container, wanted, operation === "stop" ? 143 : 0);
            }
            return changed.length > 0
                ? {
                      code: 0,
                      ok: true,
                      result: {
                          Status: "Success",
                          Message:
                              operation === "start"
                                  ? "Containers started successfully."
                                  : "Containers stopped successfully.",
                          Containers: changed.map((container) => ({ Name: container.name, State: wanted })),
                      },
                  }
                : {
                      code: 7,
                      ok: true,
                      result: { Status: "Success", Message: "No container changed.", Containers: [] },
                  };
        }
        if (operation === "remove" && mine.length > 0) {
            state.containers = state.containers.filter((container) => container.project !== project);
            return {
                code: 0,
                ok: true,
                result: {
                    Status: "Success",
                    Message: "Containers removed successfully.",
                    Containers: mine.map((container) => ({ Name: container.name, State: "removed" })),
                },
            };
        }
        return {
            code: 7,
            ok: true,
            result: { Status: "Success", Message: "No container changed.", Containers: [] },
        };
    }
}

async function bodyOf(request) {
    const chunks = [];
    for await (const chunk of request) {
        chunks.push(chunk);
    }
    return Buffer.concat(chunks).toString();
}

async function lengthOf(request) {
    let length = 0;
    for await (const chunk of request) {
        length += chunk.length;
    }
    return length;
}

function serve(path, response) {
    const file = normalize(join(distribution, path === "/" ? "index.html" : path));
    if (!file.startsWith(distribution) || !existsSync(file) || !statSync(file).isFile()) {
        response.writeHead(404, { "Content-Type": "text/plain" }).end("There is nothing here.");
        return;
    }
    const headers = {
        "Content-Type": kinds[extname(file)] ?? "application/octet-stream",
        "Content-Security-Policy": policy,
        "X-Content-Type-Options": "nosniff",
        "Cache-Control": path.startsWith("/assets/") ? "public, max-age=31536000, immutable" : "no-cache",
    };
    if (path === "/" || path === "/index.html") {
        response.writeHead(200, headers).end(readFileSync(file));
    } else {
        response.writeHead(200, headers);
        createReadStream(file).pipe(response);
    }
}
