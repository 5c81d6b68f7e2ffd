import { fileURLToPath } from "node:url";
import { bundle, createConfig } from "@redocly/openapi-core";
import Ajv from "ajv/dist/2020";
import { afterAll, beforeAll, beforeEach, describe, expect, it } from "vitest";
import WebSocket from "ws";
import { MockDaemon } from "../../mock/daemon.mjs";
import type { Decoder } from "../../src/api/decode";
import * as types from "../../src/api/types";

/* The page is tried on the mock, so the mock answers what the description of the daemon's interface says. */

interface Content {
    schema: object;
    example?: unknown;
}
interface Parameter {
    name: string;
    in: string;
    example?: string;
}
interface Operation {
    operationId: string;
    parameters?: Parameter[];
    requestBody?: { content: Record<string, Content> };
    responses: Record<string, { content?: Record<string, Content> }>;
}

/** What the page does not ask for. */
const unknown = ["getMetrics", "getDescription", "streamRawLogs", "listTokens", "makeToken", "removeToken"];

const file = fileURLToPath(new URL("../../../api/openapi.yaml", import.meta.url));
const { bundle: description } = await bundle({
    ref: file,
    config: await createConfig({}),
    dereference: true,
});
const paths = description.parsed.paths as Record<
    string,
    Record<string, Operation> & { parameters?: Parameter[] }
>;
const operations = Object.entries(paths).flatMap(([path, { parameters = [], ...item }]) =>
    Object.entries(item).map(([method, operation]) => ({
        ...operation,
        method: method.toUpperCase(),
        path: [...parameters, ...(operation.parameters ?? [])]
            .filter((parameter) => parameter.in === "path")
            .reduce(
                (text, { name, example }) => text.replace(`{${name}}`, encodeURIComponent(example ?? "")),
                path,
            ),
    })),
);
const known = operations.filter((operation) => !unknown.includes(operation.operationId));

/** Objects have the members that are listed and no others. */
function closed(schema: unknown): unknown {
    if (Array.isArray(schema)) {
        return schema.map(closed);
    }
    if (typeof schema !== "object" || schema === null) {
        return schema;
    }
    const members = Object.entries(schema).map(([name, value]) => [name, closed(value)]);
    return {
        ...("properties" in schema ? { additionalProperties: false } : {}),
        ...Object.fromEntries(members),
    };
}

const ajv = new Ajv({
    strictTypes: false,
    formats: {
        "date-time": (text: string) => /^\d{4}-\d\d-\d\dT.*Z$/.test(text) && Date.parse(text) > 0,
        binary: true,
    },
});
function expectDescribed(value: unknown, schema: object): void {
    ajv.validate(closed(schema) as object, value);
    expect(ajv.errors ?? [], JSON.stringify(value)).toEqual([]);
}

const decoders: [string, Decoder<unknown>][] = [
    ["getService", types.service],
    ["check", types.checks],
    ["getCores", types.cores],
    ["getMessages", types.messages],
    ["listContainers", types.containers],
    ["listImages", types.images],
    ["loadImage", types.loadedImages],
    ["listComposeFiles", types.composeFiles],
    ["checkComposeFile", types.composeCheck],
    ["listProjects", types.projects],
    ["operateProject", types.projectResult],
    ["listPlugins", types.plugins],
    ["getSession", types.session],
];

describe("the page", () => {
    it.each(decoders)("understands the example of what is answered: %s", (name, decode) => {
        const operation = operations.find((other) => other.operationId === name);
        const example = operation?.responses[200]?.content?.["application/json"]?.example;
        // nothing of it is lost
        expect(decode(example)).toEqual(example);
    });
});

describe("the mock", () => {
    const mock = new MockDaemon();
    let address = "";
    const send = (method: string, path: string, init: RequestInit = {}, query = "") =>
        fetch(`${address}api/v1${path}${query}`, {
            method,
            headers: { Authorization: "Bearer act-token" },
            ...init,
        });

    beforeAll(async () => {
        address = await mock.listen();
    });
    beforeEach(() => fetch(`${address}mock/reset`, { method: "POST", body: "{}" }));
    afterAll(() => mock.close());

    it.each(known)("answers as it is described: $operationId", async (operation) => {
        const part = Object.values(operation.requestBody?.content ?? {})[0];
        const given = operation.operationId === "openSession" ? { token: "act-token" } : part?.example;
        const body = typeof given === "object" ? JSON.stringify(given) : String(given ?? "x".repeat(1000));
        const init = operation.requestBody ? { body } : {};
        const query = operation.method === "DELETE" ? "?force=true" : "";
        const answer = await send(operation.method, operation.path, init, query);
        const text = await answer.text();
        expect(answer.ok, `${answer.status} ${text}`).toBe(true);
        const content = operation.responses[answer.status]?.content;
        const media = answer.headers.get("content-type")?.replace(/;.*/, "");
        expect(Object.keys(operation.responses)).toContain(String(answer.status));
        expect(media ? [media] : []).toEqual(Object.keys(content ?? {}));
        if (media === "application/json") {
            expectDescribed(JSON.parse(text), content?.[media]?.schema ?? {});
        }
    });

    it.each([
        [404, "inspectContainer", "GET", "/containers/nobody", "act-token"],
        [401, "getService", "GET", "/service", "none"],
        [403, "actOnService", "POST", "/service/enable", "look-token"],
    ])("refuses as it is described: %i of %s", async (status, name, method, path, token) => {
        const answer = await send(method, path, { headers: { Authorization: `Bearer ${token}` } });
        expect(answer.status).toBe(status);
        const response = operations.find((operation) => operation.operationId === name)?.responses[status];
        expectDescribed(await answer.json(), response?.content?.["application/problem+json"]?.schema ?? {});
    });

    it.each(["getMessages", "getLogs"])("sends messages as they are described: %s", async (name) => {
        const operation = operations.find((other) => other.operationId === name);
        const socket = new WebSocket(`${address.replace("http", "ws")}api/v1${operation?.path}`, {
            headers: { Authorization: "Bearer act-token" },
        });
        const messages = await new Promise<unknown[]>((resolve, reject) => {
            const seen: unknown[] = [];
            socket.on("error", reject);
            socket.on("message", (data) => {
                seen.push(JSON.parse(data.toString()));
                if (name === "getMessages" || seen.length === 2) {
                    resolve(seen);
                }
            });
        });
        socket.terminate();
        for (const message of messages) {
            expectDescribed(message, operation?.responses[101]?.content?.["application/json"]?.schema ?? {});
        }
    });
});
