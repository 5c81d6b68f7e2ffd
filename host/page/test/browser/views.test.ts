import { readFileSync } from "node:fs";
import type { Page } from "playwright-core";
import { describe, expect, it } from "vitest";
import {
    away,
    container,
    enter,
    expectFaults,
    go,
    isMock,
    loading,
    mockIt,
    script,
    shot,
    visit,
} from "./world";

describe("every view", () => {
    it.each([
        ["board", "Board"],
        ["containers", "Containers"],
        [`containers/${container}`, container],
        ["projects", "Projects"],
        ["plugins", "Plugins"],
        ["images", "Images"],
        ["settings", "Settings"],
        ["messages", "Messages"],
    ])("shows itself without an error: %s", async (view, title) => {
        const page = await enter(`/${view}`);
        await page.getByRole("heading", { name: title, level: 1, exact: true }).waitFor();
        await page.getByText(loading).first().waitFor({ state: "detached" });
        await page.waitForTimeout(300);
        expect(await page.locator(".notice.failed").count()).toBe(0);
        expect(await page.title()).toContain(title);
        await shot(page, `view-${view.replace("/", "-")}`);
    });
});

describe("the board", () => {
    mockIt("shows cores, checks with remedies, and strangers", async () => {
        const page = await enter("/board");
        await page.getByText("Put a new certificate into").waitFor();
        const cores = page.getByRole("list", { name: "Who has which core" }).getByRole("listitem");
        expect(await cores.count()).toBe(5);
        expect(await cores.nth(1).textContent()).toContain("containers");
        await page.getByText("812 top").waitFor();
    });

    mockIt("stops the service only after a question, and starts it", async () => {
        const page = await enter("/board");
        const service = page.getByRole("region", { name: "Service" });
        await service.getByRole("button", { name: "Stop" }).click();
        const dialog = page.getByRole("dialog");
        await shot(page, "question");
        await page.keyboard.press("Escape");
        await dialog.waitFor({ state: "detached" });
        await service.getByText("running").waitFor();
        await service.getByRole("button", { name: "Stop" }).click();
        await dialog.getByRole("button", { name: "Stop the service" }).click();
        await page.getByText("Service stopped.").waitFor();
        await service.getByText("does not answer").waitFor();
        // of the service and of Podman, but told once
        expect(await service.getByText("Somebody stopped the service.").count()).toBe(1);
        await service.getByRole("button", { name: "Disable" }).click();
        await page.getByText("Service disabled.").waitFor();
        expectFaults(away);
        await service.getByRole("button", { name: "Start" }).click();
        await page.getByRole("alert").getByText("The service is disabled. Enable it first.").waitFor();
        await service.getByRole("button", { name: "Enable" }).click();
        await service.getByRole("button", { name: "Start" }).click();
        await page.getByText("Service started.").waitFor();
    });

    mockIt("starts a service that waits for its restart", async () => {
        await script("set", { part: "service", values: { state: "waiting", problem: "Podman is gone." } });
        const page = await enter("/board");
        const service = page.getByRole("region", { name: "Service" });
        await service.getByText("waiting").waitFor();
        await service.getByRole("button", { name: "Start" }).click();
        await page.getByText("Service started.").waitFor();
        await service.getByText("running").waitFor();
        expect(await service.getByRole("button", { name: "Start" }).isDisabled()).toBe(true);
    });

    mockIt("says why the service does not run, and why Podman does not answer", async () => {
        const podman = { answering: false, version: "", askedAt: null, problem: "nobody listens" };
        await script("set", {
            part: "service",
            values: { state: "failed", problem: "No <b>room</b>", podman },
        });
        const page = await enter("/board");
        const service = page.getByRole("region", { name: "Service" });
        await service.getByText("No <b>room</b>").waitFor();
        await service.getByText("nobody listens").waitFor();
    });

    mockIt("says when what it shows is old, and recovers", async () => {
        expectFaults(away);
        const page = await enter("/board");
        await page.getByText("for 1 h").waitFor();
        await script("fault", { path: "/service", status: 500, detail: "The daemon stumbled." });
        await page.getByText("Not up to date: The daemon stumbled.").waitFor();
        await page.getByText("for 1 h").waitFor();
        await script("fault", { path: "/service" });
        await page.getByText("Not up to date").waitFor({ state: "detached" });
    });

    mockIt.each([
        "<html>oops",
        '{"verdict":"ok","checks":"none"}',
        "[]",
        "null",
        '{"verdict":"ok","checks":[null]}',
    ])("is no white page after malformed data: %s", async (body) => {
        await script("fault", { path: "/check", status: 200, body });
        const page = await enter("/board");
        await page.getByRole("region", { name: "Checks" }).getByText("not as expected").waitFor();
        await page.getByRole("region", { name: "Cores" }).getByText("1 of at most 2").waitFor();
    });
});

describe("polling", () => {
    it("asks for what can be seen only, and not at all when hidden", async () => {
        const page = await enter("/containers");
        await page.getByRole("table").waitFor();
        let asked: string[] = [];
        page.on("request", (request) => asked.push(`${request.method()} ${new URL(request.url()).pathname}`));
        await page.waitForTimeout(4500);
        const count = asked.filter((request) => request === "GET /api/v1/containers").length;
        expect(count).toBeGreaterThanOrEqual(1);
        expect(count).toBeLessThanOrEqual(3);
        expect(new Set(asked)).toEqual(new Set(["GET /api/v1/containers", "GET /api/v1/service"]));
        await page.evaluate(() => {
            Object.defineProperty(document, "hidden", { value: true, configurable: true });
            document.dispatchEvent(new Event("visibilitychange"));
        });
        await page.waitForTimeout(300);
        asked = [];
        await page.waitForTimeout(4000);
        expect(asked).toEqual([]);
        await page.evaluate(() => {
            Object.defineProperty(document, "hidden", { value: false, configurable: true });
            document.dispatchEvent(new Event("visibilitychange"));
        });
        await page.waitForTimeout(500);
        expect(asked).toContain("GET /api/v1/containers");
    });
});

describe("containers", () => {
    it("are stopped, started and restarted", async () => {
        const page = await enter("/containers");
        await page.getByRole("button", { name: `Stop ${container}`, exact: true }).click();
        await page.getByText(`${container} stopped.`).waitFor({ timeout: 30_000 });
        await page.getByRole("button", { name: `Start ${container}`, exact: true }).click();
        await page.getByText(`${container} started.`).waitFor({ timeout: 30_000 });
        await page.getByRole("button", { name: `Restart ${container}`, exact: true }).click();
        await page.getByText(`${container} restarted.`).waitFor({ timeout: 30_000 });
    });

    mockIt("are removed after a question, running ones with force", async () => {
        const page = await enter("/containers");
        await page.getByRole("button", { name: "Remove import" }).click();
        await page.getByRole("button", { name: "Cancel" }).click();
        await page.getByRole("link", { name: "import", exact: true }).waitFor();
        await page.getByRole("button", { name: "Remove clock" }).click();
        await page.getByText("It runs and is stopped first.").waitFor();
        await page.getByRole("button", { name: "Stop and remove" }).click();
        await page.getByText("clock removed.").waitFor();
        await page.getByRole("link", { name: "clock", exact: true }).waitFor({ state: "detached" });
    });

    mockIt("that refuse say why", async () => {
        expectFaults(away);
        await script("fault", {
            path: "/containers/clock/stop",
            status: 409,
            detail: "clock is being removed.",
        });
        const page = await enter("/containers");
        await page.getByRole("button", { name: "Stop clock" }).click();
        await page.getByRole("alert").getByText("clock: clock is being removed.").waitFor();
    });

    it("can be inspected", async () => {
        const page = await enter("/containers");
        await page.getByRole("link", { name: container, exact: true }).click();
        await page.getByText('"State": {').waitFor();
    });
});

describe("projects", () => {
    mockIt("are created, started, stopped and removed, each with its result", async () => {
        const page = await enter("/projects");
        const project = page.getByRole("region", { name: "Project spare" });
        await project.getByRole("button", { name: "Create project" }).click();
        await project.getByText("Create: code 1, success, containers were made").waitFor();
        await project.getByText("Containers created successfully.").waitFor();
        await project.getByRole("button", { name: "Start project" }).click();
        await project.getByText("Start: code 0, success").waitFor();
        const row = project.getByRole("row", { name: /spare-one-1/ });
        expect((await row.textContent())?.replace(/\s+/g, " ")).toMatch(/created.*→.*running/);
        await shot(page, "project-result");
        await project.getByRole("button", { name: "Start project" }).click();
        await project.getByText("code 7, success, but no container changed").waitFor();
        await project.getByRole("button", { name: "Stop project" }).click();
        await page.getByRole("button", { name: "Stop containers" }).click();
        await project.getByText("Stop: code 0").waitFor();
        await project.getByRole("button", { name: "Remove project" }).click();
        await page.getByRole("button", { name: "Remove containers" }).click();
        await project.getByText("Remove: code 0").waitFor();
    });

    it("come from files, which are checked before they are saved", async () => {
        const page = await enter("/projects/+new");
        const name = `page-test-${Date.now()}.yaml`;
        await page.getByLabel("Name").fill("../evil.yaml");
        expect(await page.getByRole("button", { name: "Save" }).isDisabled()).toBe(true);
        await page.getByLabel("Name").fill(name);
        await page.getByLabel("Text").fill("this is: [no compose file");
        await page.getByRole("button", { name: "Check" }).click();
        await page.getByText("The compose tool does not take it.").waitFor();
        await shot(page, "file-check");
        await page.getByRole("button", { name: "Save" }).click();
        await page.getByRole("dialog").getByText("The compose tool does not take this text").waitFor();
        await page.getByRole("button", { name: "Cancel" }).click();
        await page.getByLabel("Text").fill("services:\n  one:\n    image: localhost/busybox:1\n");
        await page.getByRole("button", { name: "Save" }).click();
        await page.getByText(`${name} saved.`).waitFor();
        await page.getByRole("heading", { name, level: 1 }).waitFor();
        await page.getByLabel("Text").fill("services:\n  two:\n    image: localhost/busybox:1\n");
        await page.getByText("not saved").waitFor();
        await go(page, "/projects");
        await go(page, `/projects/${name}`);
        expect(await page.getByLabel("Text").inputValue()).toContain("two:");
        await page.getByRole("button", { name: "Save" }).click();
        await page.getByText("not saved").waitFor({ state: "detached" });
        await page.getByRole("button", { name: "Delete" }).click();
        await page.getByRole("dialog").getByRole("button", { name: "Delete" }).click();
        await page.getByRole("heading", { name: "Projects", level: 1 }).waitFor();
        await page.getByText(`${name} deleted.`).waitFor();
    });

    mockIt("are not overwritten when somebody else changed the file", async () => {
        const page = await enter("/projects/demo.yaml");
        await page.getByLabel("Text").fill("services:\n  mine:\n    image: x\n");
        const other = await enter("/projects/demo.yaml");
        await other.getByLabel("Text").fill("services:\n  theirs:\n    image: x\n");
        await other.getByRole("button", { name: "Save" }).click();
        await other.getByText("demo.yaml saved.").waitFor();
        await page.getByRole("button", { name: "Save" }).click();
        await page.getByRole("dialog").getByText("Somebody changed the file").waitFor();
    });
});

describe("plugins and images", () => {
    mockIt("are switched, uploaded, rescanned and deleted", async () => {
        const page = await enter("/plugins");
        await page.getByRole("button", { name: "Deactivate network.crp" }).click();
        await page.getByText("network.crp deactivated, from the next start of the daemon.").waitFor();
        const network = page.getByRole("row").filter({ hasText: "network.crp" });
        await network.getByText("off from the daemon's next start").waitFor();
        await network.getByRole("button", { name: "Activate network.crp", exact: true }).click();
        await page.getByText("network.crp activated, from the next start of the daemon.").waitFor();
        await network.getByText("next start").waitFor({ state: "detached" });
        const upload = page.getByLabel("Upload a plugin");
        await upload.setInputFiles({
            name: "bad name.crp",
            mimeType: "application/octet-stream",
            buffer: Buffer.alloc(1000),
        });
        await page.getByRole("alert").getByText("The name may have letters").waitFor();
        expectFaults(away);
        await upload.setInputFiles({
            name: "tiny.crp",
            mimeType: "application/octet-stream",
            buffer: Buffer.alloc(3),
        });
        await page.getByRole("alert").getByText("This is no plugin file").waitFor();
        await upload.setInputFiles({
            name: "extra.crp",
            mimeType: "application/octet-stream",
            buffer: Buffer.alloc(5_000_000),
        });
        await page.getByText("extra.crp uploaded.").waitFor();
        await upload.setInputFiles({
            name: "extra.crp",
            mimeType: "application/octet-stream",
            buffer: Buffer.alloc(1000),
        });
        await page.getByRole("dialog").getByRole("button", { name: "Replace" }).click();
        await page.getByText("extra.crp replaced.").waitFor();
        await page.getByRole("button", { name: "Rescan" }).click();
        await page.getByText("The plugin directories were read again.").waitFor();
        await page.getByRole("button", { name: "Delete extra.crp" }).click();
        await page.getByRole("dialog").getByRole("button", { name: "Delete" }).click();
        await page.getByText("extra.crp deleted.").waitFor();
        expect(await page.getByRole("button", { name: "Delete sensors.crp" }).count()).toBe(0);
    });

    mockIt("that are switched are seen to be, and can be switched back, after a reload too", async () => {
        const page = await enter("/plugins");
        await page.getByRole("button", { name: "Deactivate network.crp" }).click();
        const network = page.getByRole("row").filter({ hasText: "network.crp" });
        await network.getByText("off from the daemon's next start").waitFor();
        await page.reload();
        await network.getByText("off from the daemon's next start").waitFor();
        await page.getByRole("button", { name: "Activate network.crp", exact: true }).click();
        await network.getByText("next start").waitFor({ state: "detached" });
        await page.getByRole("button", { name: "Activate sensors.crp", exact: true }).click();
        const sensors = page.getByRole("row").filter({ hasText: "sensors.crp" });
        await sensors.getByText("on from the daemon's next start").waitFor();
        expectFaults(away);
        await script("restart", { away: 500 });
        await sensors.getByText("next start").waitFor({ state: "detached" });
        await page.getByRole("button", { name: "Deactivate sensors.crp" }).waitFor();
    });

    mockIt(
        "go on being uploaded while another view is looked at, and warn before the page goes",
        async () => {
            const page = await enter("/images");
            await script("slow", { milliseconds: 15_000 });
            const upload = page.getByLabel("Load an archive");
            const big = { name: "big.tar", mimeType: "application/x-tar", buffer: Buffer.alloc(20_000_000) };
            await upload.setInputFiles(big);
            await page.getByRole("progressbar").waitFor();
            await page.getByRole("link", { name: "Plugins" }).click();
            await page.getByRole("heading", { name: "Plugins", level: 1 }).waitFor();
            expect(await page.getByRole("progressbar").count()).toBe(0);
            expect(await page.getByLabel("Upload a plugin").isEnabled()).toBe(true);
            const asked = page.waitForEvent("dialog");
            await page.close({ runBeforeUnload: true });
            const question = await asked;
            expect(question.type()).toBe("beforeunload");
            await question.dismiss();
            await page.getByRole("link", { name: "Images" }).click();
            await page.getByRole("progressbar", { name: "Upload of big.tar" }).waitFor();
            await page.getByText("sent; the board works on it").waitFor();
            expect(await upload.isDisabled()).toBe(true);
            await page.getByRole("button", { name: "Cancel" }).click();
            await page.getByText("big.tar: Cancelled; nothing was kept.").waitFor();
            expect(await upload.isEnabled()).toBe(true);
            await script("slow", { milliseconds: 1000 });
            await upload.setInputFiles(big);
            await page.getByRole("progressbar").waitFor();
            await page.getByRole("link", { name: "Board" }).click();
            await page.getByText("Loaded localhost/loaded:1.").waitFor();
            // nothing holds it any longer
            await page.reload();
            await page.getByRole("heading", { name: "Board", level: 1 }).waitFor();
        },
    );

    mockIt("show how far an upload is, and let it be cancelled", async () => {
        const page = await enter("/images");
        await script("slow", { milliseconds: 3000 });
        await page.getByLabel("Load an archive").setInputFiles({
            name: "big.tar",
            mimeType: "application/x-tar",
            buffer: Buffer.alloc(20_000_000),
        });
        await page.getByRole("progressbar").waitFor();
        await page.getByText("sent; the board works on it").waitFor();
        await shot(page, "upload");
        await page.getByRole("button", { name: "Cancel" }).click();
        await page.getByText("big.tar: Cancelled; nothing was kept.").waitFor();
        await script("slow", { milliseconds: 0 });
        await page
            .getByLabel("Load an archive")
            .setInputFiles({ name: "small.tar", mimeType: "application/x-tar", buffer: Buffer.alloc(2000) });
        await page.getByText("Loaded localhost/loaded:1.").waitFor();
    });

    mockIt("are removed with those that use them only after that was said", async () => {
        const page = await enter("/images");
        await page.getByRole("button", { name: "Remove localhost/busybox:1" }).click();
        await page.getByRole("dialog").getByText("1 container made of it is removed too").waitFor();
        await page.getByRole("button", { name: "Remove with its containers" }).click();
        await page.getByText("localhost/busybox:1 removed.").waitFor();
    });
});

describe("settings", () => {
    mockIt("are checked and saved", async () => {
        const page = await enter("/settings");
        await page.getByLabel("TCP port").fill("80");
        await page.getByText("The board itself needs port 80.").waitFor();
        expect(await page.getByRole("button", { name: "Save" }).isDisabled()).toBe(true);
        await page.getByLabel("TCP port").fill("8443");
        await page.getByLabel("Cores for containers").fill("3");
        await page.getByText("A number from 0 to 2.").waitFor();
        await page.getByLabel("Cores for containers").fill("2");
        await page.getByRole("button", { name: "Save" }).click();
        await page.getByText("Saved; in effect after the next start").waitFor();
        await page.reload();
        await page.getByLabel("TCP port").waitFor();
        expect(await page.getByLabel("TCP port").inputValue()).toBe("8443");
    });

    mockIt.each([
        ["never", /^The service is never started again by itself\.$/],
        [
            "on-failure",
            /^The service is started again when Podman is lost while it runs\. What somebody stopped/,
        ],
        [
            "always",
            /, and when the start that comes with the daemon fails\. What somebody stopped stays stopped\.$/,
        ],
    ])("say what the policy of restarts means: %s", async (policy, meaning) => {
        const restarts = { policy, limit: 5, inARow: 0, nextAt: null, history: [] };
        await script("set", { part: "service", values: { restarts } });
        const page = await enter("/settings");
        await page.getByRole("region", { name: "Restarts" }).getByText(meaning).waitFor();
    });
});

describe("messages", () => {
    mockIt("come live and can be filtered", async () => {
        const page = await enter("/messages");
        await page.getByText("live").waitFor();
        await script("message", { severity: 3, text: "Quolex Container Utils: <b>something</b> broke." });
        await page.getByRole("cell", { name: "<b>something</b> broke" }).waitFor();
        await page.getByLabel("Show").selectOption("3");
        expect(await page.getByRole("row").count()).toBe(3);
        await page.getByPlaceholder("text").fill("spawn");
        expect(await page.getByRole("row").count()).toBe(2);
        expectFaults(away);
        await script("restart", { away: 1500 });
        await page.getByText("disconnected, trying again").waitFor();
        await page.getByText("live").waitFor();
    });
});

describe("a daemon that hangs", () => {
    mockIt("is doubted by messages and by logs", async () => {
        expectFaults(away);
        const pages = [await enter("/messages"), await enter("/log?c=clock")];
        const live = (page: Page) => page.locator("main .state", { hasText: "live" });
        for (const page of pages) {
            await live(page).waitFor();
        }
        await script("hang", { on: true });
        await Promise.all(pages.map((page) => live(page).waitFor({ state: "detached", timeout: 30_000 })));
        for (const page of pages) {
            await page.getByText("no answer").waitFor();
        }
        await script("hang", { on: false });
        for (const page of pages) {
            await live(page).waitFor({ timeout: 20_000 });
        }
    });
});

describe("the files of the page", () => {
    it("are all its own, and nothing in them is inline", async () => {
        const html = isMock
            ? readFileSync(new URL("../../dist/index.html", import.meta.url), "utf8")
            : await (await fetch(process.env.QX_PAGE_URL as string)).text();
        expect(html).not.toMatch(/style=|<style|\son\w+=|<script(?![^>]*src=)|https?:/);
        const page = await visit();
        const asked: string[] = [];
        page.on("request", (request) => asked.push(request.url()));
        expectFaults(away);
        await page.reload();
        await page.getByLabel("Token").waitFor();
        expect(asked.filter((url) => new URL(url).origin !== new URL(page.url()).origin)).toEqual([]);
    });

    it("come with a policy", async () => {
        const page = await visit();
        expectFaults(away);
        const answer = await page.reload();
        expect(answer?.headers()["content-security-policy"]).toContain("default-src 'none'");
        expect(answer?.headers()["x-content-type-options"]).toBe("nosniff");
    });
});
