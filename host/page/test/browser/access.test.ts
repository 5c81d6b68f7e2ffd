import { describe, expect, it } from "vitest";
import {
    away,
    enter,
    expectFaults,
    go,
    isMock,
    loading,
    lookIt,
    lookToken,
    mockIt,
    script,
    shot,
    token,
    visit,
} from "./world";

describe("access", () => {
    it("by a token in the address, which goes from there at once", async () => {
        const page = await visit(`#token=${token}`);
        await page.getByRole("navigation", { name: "Views" }).waitFor();
        expect(page.url()).not.toContain("token");
        expect(await page.evaluate(() => document.cookie)).toBe("");
        await page.reload();
        await page.getByRole("heading", { name: "Board", level: 1 }).waitFor();
    });

    it("by a form", async () => {
        expectFaults(away);
        const page = await visit();
        const field = page.getByLabel("Token");
        await field.waitFor();
        await shot(page, "sign-in");
        await field.fill("not-a-token");
        await page.getByRole("button", { name: "Sign in" }).click();
        await page.getByRole("alert").filter({ hasText: /\S/ }).waitFor();
        await field.fill(token);
        await page.keyboard.press("Enter");
        await page.getByRole("heading", { name: "Board", level: 1 }).waitFor();
    });

    it("ends with signing out", async () => {
        expectFaults(away);
        const page = await enter("/settings");
        await page.getByRole("button", { name: "Sign out" }).click();
        await page.getByLabel("Token").waitFor();
        await page.reload();
        await page.getByLabel("Token").waitFor();
    });

    mockIt("ends when the daemon forgets who it was, also in the log", async () => {
        expectFaults(away);
        const page = await enter("/log?c=clock");
        await page.getByText("live").waitFor();
        await script("forget");
        await page.getByLabel("Token").waitFor();
        expect(await page.getByRole("alert").textContent()).toContain("no longer valid");
    });

    lookIt("to look only: everything that acts is off, and says why", async () => {
        const page = await enter("/board", {}, lookToken);
        for (const view of [
            "board",
            "containers",
            "projects",
            "plugins",
            "images",
            "settings",
            "projects/+new",
        ]) {
            await go(page, `/${view}`);
            await page.getByText(loading).waitFor({ state: "detached" });
            await page.getByText("Your token may look but not act.").waitFor();
            const acting = page.locator('main button[aria-describedby="look-only"]');
            // A board may have no project, plugin or image yet.
            if (isMock) {
                await acting.first().waitFor();
            }
            expect(
                await acting.evaluateAll((buttons) =>
                    buttons.every((button) => (button as HTMLButtonElement).disabled),
                ),
            ).toBe(true);
            expect(await page.locator('main input[type="file"]:not(:disabled)').count()).toBe(0);
        }
        await go(page, "/containers");
        await shot(page, "look-only");
    });
});
