/*
 * A browser and something to look at: the mock, or the daemon at QX_PAGE_URL.
 *
 *   QX_PAGE_URL         address of a daemon; without it the mock is started
 *   QX_PAGE_TOKEN       a token with the right "act"
 *   QX_PAGE_LOOK_TOKEN  a token with the right "look"; without it such tests are skipped on a daemon
 *   QX_PAGE_CONTAINER   a running container that writes at least a line a second; "clock" without it
 *   QX_PAGE_BOARD       words of the shell in front of a program that is to run on the daemon's board, such as
 *                       "board exec NAME --"; without them tests that need that are skipped on a daemon
 *   QX_PAGE_PLUGINS     where the plugin files network.crp and sensors.crp are; without it a test is skipped
 *   QX_PAGE_SHOTS       where screenshots go; "test-output" without it
 *   QX_PAGE_BROWSER     the browser's program; Debian's Chromium without it
 */
import { type ChildProcess, execFile, spawn } from "node:child_process";
import { mkdirSync } from "node:fs";
import { join } from "node:path";
import { fileURLToPath } from "node:url";
import { promisify } from "node:util";
import {
    type Browser,
    type BrowserContext,
    type BrowserContextOptions,
    chromium,
    type Page,
} from "playwright-core";
import { afterAll, afterEach, beforeAll, beforeEach, describe, expect, it, onTestFinished } from "vitest";

const given = process.env.QX_PAGE_URL;
export const isMock = !given;
export const token = process.env.QX_PAGE_TOKEN ?? "act-token";
export const lookToken = process.env.QX_PAGE_LOOK_TOKEN ?? (isMock ? "look-token" : "");
export const container = process.env.QX_PAGE_CONTAINER ?? "clock";
const shots = process.env.QX_PAGE_SHOTS ?? fileURLToPath(new URL("../../test-output", import.meta.url));

/** For what only the mock's scripting can bring about. */
export const mockIt = it.skipIf(!isMock);
export const lookIt = it.skipIf(!lookToken);

const boardWords = isMock ? "" : (process.env.QX_PAGE_BOARD ?? "");
export const plugins = boardWords ? (process.env.QX_PAGE_PLUGINS ?? "") : "";
/** For what the mock can be told to do, and containers or commands on a board can do in truth. */
export const scriptedIt = it.skipIf(!isMock && !boardWords);
/** For what only a board has. */
export const describeOnBoard = describe.skipIf(!boardWords);

/** Runs a script on the board, with the container tools at hand. What it writes is the answer. */
export async function onBoard(script: string, ...parameters: string[]): Promise<string> {
    return (await rawOnBoard(script, ...parameters)).toString().trim();
}

export async function rawOnBoard(script: string, ...parameters: string[]): Promise<Buffer> {
    const tools = ["LD_LIBRARY_PATH=/mnt/containers_tools/lib", "PODMAN_IGNORE_CGROUPSV1_WARNING=1"];
    const { stdout } = await promisify(execFile)(
        "sh",
        ["-c", `${boardWords} "$@"`, "sh", "env", ...tools, "sh", "-euc", script, "sh", ...parameters],
        { encoding: "buffer", maxBuffer: 64 * 1024 * 1024 },
    );
    return stdout;
}

/** Runs a script in a container on the board until the test has ended. The container ends at once when it is told to. */
export async function run(
    name: string,
    script: string,
    parameters: string[] = [],
    options: string[] = [],
): Promise<void> {
    onTestFinished(async () => {
        await onBoard('podman rm --force --ignore --time=0 "$1"', name);
    });
    const usual = ["--detach", "--replace", "--name", name, "--network=none", "--stop-timeout=0"];
    const command = ["sh", "-c", script, "sh", ...parameters];
    await onBoard('podman run "$@"', ...usual, ...options, "localhost/busybox:1", ...command);
}

let address = given ? given.replace(/\/*$/, "/") : "";
let mock: ChildProcess | null = null;
let browser: Browser;
let contexts: BrowserContext[] = [];
let faults: string[] = [];
/** Faults that a test brings about on purpose. */
let expected: RegExp[] = [];

beforeAll(async () => {
    mkdirSync(shots, { recursive: true });
    if (isMock) {
        mock = spawn(process.execPath, [fileURLToPath(new URL("../../mock/serve.mjs", import.meta.url))], {
            env: { ...process.env, PORT: "0" },
            stdio: ["ignore", "pipe", "inherit"],
        });
        address = await new Promise((resolve, reject) => {
            mock?.once("exit", () => reject(new Error("the mock ended")));
            mock?.stdout?.once("data", (data: Buffer) =>
                resolve(/^\S+/.exec(data.toString())?.[0].replace(/#.*/, "") ?? ""),
            );
        });
    }
    browser = await chromium.launch({
        executablePath: process.env.QX_PAGE_BROWSER ?? "/usr/bin/chromium",
        args: [
            "--no-sandbox",
            "--disable-gpu",
            "--disable-quic",
            "--no-first-run",
            "--disable-background-networking",
            "--disable-component-update",
            "--disable-sync",
        ],
    });
});

afterAll(async () => {
    await browser?.close();
    mock?.kill();
});

beforeEach(async () => {
    faults = [];
    expected = [];
    if (isMock) {
        await script("reset");
    }
});

afterEach(async () => {
    for (const context of contexts) {
        await context.close();
    }
    contexts = [];
    // neither an error of a script nor anything that the policy of the page forbids
    expect(faults.filter((fault) => !expected.some((pattern) => pattern.test(fault)))).toEqual([]);
});

/** Faults in the console that belong to the test: a daemon that is away, an answer with an error. */
export function expectFaults(...patterns: RegExp[]): void {
    expected.push(...patterns);
}

/** What a view says before it has data; a message of the board may begin in the same way. */
export const loading = /^Loading .*…$/;

export const away = /Failed to load resource|WebSocket connection|ERR_/;

/** Tells the mock what to do. */
export async function script(what: string, parameters: unknown = {}): Promise<void> {
    // a mock that is restarting answers soon
    for (let tries = 0; ; tries++) {
        try {
            const body = JSON.stringify(parameters);
            const answer = await fetch(`${address}mock/${what}`, { method: "POST", body });
            expect(answer.status).toBe(204);
            return;
        } catch (error) {
            if (tries >= 50) {
                throw error;
            }
            await new Promise((resolve) => setTimeout(resolve, 100));
        }
    }
}

export async function visit(fragment = "", options: BrowserContextOptions = {}): Promise<Page> {
    const context = await browser.newContext({
        viewport: { width: 1280, height: 800 },
        acceptDownloads: true,
        ...options,
    });
    contexts.push(context);
    const page = await context.newPage();
    page.setDefaultTimeout(10_000);
    page.on("pageerror", (error) => faults.push(`${error}`));
    page.on("console", (message) => {
        if (message.type() === "error" || /Content.Security.Policy/i.test(message.text())) {
            faults.push(message.text());
        }
    });
    await page.goto(address + fragment);
    return page;
}

/** A page of somebody who signed in, at a view. */
export async function enter(view = "/board", options: BrowserContextOptions = {}, as = token): Promise<Page> {
    const page = await visit(`#token=${as}`, options);
    await page.getByRole("navigation", { name: "Views" }).waitFor();
    await go(page, view);
    return page;
}

export async function go(page: Page, view: string): Promise<void> {
    await page.evaluate((fragment) => {
        location.hash = fragment;
    }, `#${view}`);
    await page.waitForFunction((fragment) => location.hash === fragment, `#${view}`);
    await page.locator("h1").first().waitFor();
}

export async function shot(page: Page, name: string, fullPage = false): Promise<void> {
    await page.screenshot({ path: join(shots, `${name}.png`), fullPage });
}

/** The processes in which pages live. */
export async function renderers(): Promise<number[]> {
    const session = await browser.newBrowserCDPSession();
    const { processInfo } = await session.send("SystemInfo.getProcessInfo");
    await session.detach();
    return processInfo.filter(({ type }) => type === "renderer").map(({ id }) => id);
}

/** The rows that the log shows. */
export async function logRows(page: Page): Promise<string[]> {
    return page
        .locator(".xterm-rows > div")
        .evaluateAll((rows) => rows.map((row) => (row.textContent ?? "").replace(/\u00a0/g, " ").trimEnd()));
}

/** Waits until the log's rows are as wanted. */
export async function logHas(
    page: Page,
    wanted: (rows: string[]) => boolean,
    what: string,
): Promise<string[]> {
    let rows: string[] = [];
    for (let tries = 0; tries < 100; tries++) {
        rows = await logRows(page);
        if (wanted(rows)) {
            return rows;
        }
        await page.waitForTimeout(100);
    }
    throw new Error(`the log does not show ${what}, but:\n${rows.join("\n")}`);
}
