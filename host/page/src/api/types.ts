import { list, oneOf, orElse, orNull, record, text, whole, yesNo } from "./decode";

type Of<D> = D extends (...parameters: never[]) => infer T ? T : never;

export const session = record({ name: text, right: oneOf("look", "act") });
export type Session = Of<typeof session>;

export const service = record({
    version: text,
    enabled: yesNo,
    state: oneOf("starting", "running", "stopping", "stopped", "waiting", "failed"),
    problem: text,
    startedAt: orNull(text),
    settings: record({ tcpPort: whole, cores: whole, maximumCores: whole }),
    podman: record({ answering: yesNo, version: text, askedAt: orNull(text), problem: text }),
    restarts: record({
        policy: oneOf("never", "on-failure", "always"),
        limit: whole,
        inARow: whole,
        nextAt: orNull(text),
        history: list(record({ time: text, cause: text })),
    }),
});
export type Service = Of<typeof service>;

export const checks = record({
    verdict: oneOf("ok", "warning", "error"),
    checks: list(
        record({
            id: text,
            title: text,
            verdict: oneOf("ok", "warning", "error", "unknown"),
            found: text,
            remedy: text,
        }),
    ),
});
export type Checks = Of<typeof checks>;

export const cores = record({
    cores: list(record({ core: whole, owner: oneOf("linux", "containers", "hypervisor", "unused") })),
    configured: whole,
    maximum: whole,
    effective: text,
    strangers: list(record({ pid: whole, command: text })),
});
export type Cores = Of<typeof cores>;

export const message = record({ time: text, severity: whole, number: whole, source: text, text });
export type Message = Of<typeof message>;
export const messages = record({ messages: list(message) });

export const container = record({
    id: text,
    name: text,
    image: text,
    state: text,
    status: text,
    created: text,
    exitCode: whole,
    project: text,
    ports: list(text),
    /** empty when it never was started; undefined when the daemon does not tell */
    startedAt: orElse<string | undefined>(text, undefined),
});
export type Container = Of<typeof container>;
export const containers = record({ containers: list(container) });

export const image = record({ id: text, names: list(text), size: whole, created: text, containers: whole });
export type Image = Of<typeof image>;
export const images = record({ images: list(image) });
export const loadedImages = record({ names: list(text) });

export const composeFile = record({ name: text, size: whole, modified: text });
export type ComposeFile = Of<typeof composeFile>;
export const composeFiles = record({ files: list(composeFile) });
export const composeCheck = record({ valid: yesNo, output: text });
export type ComposeCheck = Of<typeof composeCheck>;

export const project = record({
    file: text,
    name: text,
    state: oneOf("none", "created", "running", "partly", "stopped", "unknown"),
    containers: list(record({ name: text, state: text })),
});
export type Project = Of<typeof project>;
export const projects = record({ projects: list(project) });

export const projectResult = record({
    code: whole,
    ok: yesNo,
    result: orNull(
        record({
            Status: orElse(text, ""),
            Message: orElse(text, ""),
            Containers: orElse(list(record({ Name: orElse(text, ""), State: orElse(text, "") })), []),
        }),
    ),
});
export type ProjectResult = Of<typeof projectResult>;

export const plugin = record({
    fileName: text,
    path: text,
    directory: oneOf("user", "system"),
    name: text,
    version: text,
    compatibleOs: text,
    osCompatible: yesNo,
    initPriority: whole,
    pluginType: whole,
    size: whole,
    created: whole,
    isDeactivated: yesNo,
    isLoaded: yesNo,
    /** what will hold from the daemon's next start on; undefined when it does not tell */
    deactivatedNext: orElse<boolean | undefined>(yesNo, undefined),
});
export type Plugin = Of<typeof plugin>;
export const plugins = record({ plugins: list(plugin) });

/** What names of compose files and plugin files may look like. */
export const fileName = /^[A-Za-z0-9][A-Za-z0-9._-]{0,127}$/;
