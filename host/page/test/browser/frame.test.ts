import { createRequire } from "node:module";
import type { Page } from "playwright-core";
import { describe, expect, it } from "vitest";
import { away, container, enter, expectFaults, go, loading, logHas, mockIt, shot, visit } from "./world";

const axe = createRequire(import.meta.url).resolve("axe-core");
const views = [
    "board",
    "containers",
    `containers/${container}`,
    `log?c=${container}`,
    "projects",
    "projects/+new",
    "plugins",
    "images",
    "settings",
    "messages",
];
const nameOf = (view: string) => view.replace(/\W+/g, "-");

async function settled(page: Page, view: string): Promise<void> {
    await page.getByText(loading).first().waitFor({ state: "detached" });
    if (view.startsWith("log")) {
        await logHas(page, (rows) => rows.some(Boolean), "lines");
    }
    await page.waitForTimeout(300);
}

describe("a phone", () => {
    it.each(views)("shows everything in 360 pixels: %s", async (view) => {
        const page = await enter(`/${view}`, {
            viewport: { width: 360, height: 740 },
            hasTouch: true,
            isMobile: true,
        });
        await settled(page, view);
        const beyond = await page.evaluate(
            () => document.documentElement.scrollWidth - document.documentElement.clientWidth,
        );
        await shot(page, `phone-${nameOf(view)}`);
        expect(beyond).toBeLessThanOrEqual(0);
    });
});

describe("a finger", () => {
    it("scrolls the log", async () => {
        const page = await enter(`/log?c=${container}`, {
            viewport: { width: 360, height: 740 },
            hasTouch: true,
            isMobile: true,
        });
        await logHas(page, (rows) => rows.filter(Boolean).length > 10, "lines");
        const box = await page.locator(".log-scroller").boundingBox();
        const session = await page.context().newCDPSession(page);
        const x = Math.round((box?.x ?? 0) + 100);
        const y = Math.round((box?.y ?? 0) + 60);
        const touch = (
            type: "touchStart" | "touchMove" | "touchEnd",
            touchPoints: { x: number; y: number }[],
        ) => session.send("Input.dispatchTouchEvent", { type, touchPoints });
        await touch("touchStart", [{ x, y }]);
        for (let step = 1; step <= 12; step++) {
            await touch("touchMove", [{ x, y: y + step * 10 }]);
            await page.waitForTimeout(16);
        }
        await touch("touchEnd", []);
        await page.getByRole("button", { name: "Follow", pressed: false }).waitFor();
    });
});

describe("the dark", () => {
    it.each(views)("is dark: %s", async (view) => {
        const page = await enter(`/${view}`, { colorScheme: "dark" });
        await settled(page, view);
        await shot(page, `dark-${nameOf(view)}`);
        const ground = await page.evaluate(() => getComputedStyle(document.body).backgroundColor);
        expect(ground).toBe("rgb(15, 18, 22)");
    });

    it("comes and goes under an open log", async () => {
        const page = await enter(`/log?c=${container}`);
        await settled(page, "log");
        const ground = () =>
            page
                .locator(".xterm-scrollable-element")
                .evaluate((element) => getComputedStyle(element).backgroundColor);
        expect(await ground()).toBe("rgb(255, 255, 255)");
        await page.emulateMedia({ colorScheme: "dark" });
        await page.waitForTimeout(300);
        expect(await ground()).toBe("rgb(20, 23, 28)");
    });
});

describe("assistive technology", () => {
    async function violations(page: Page): Promise<string[]> {
        await page.addScriptTag({ path: axe }).catch(async () => {
            // the policy forbids foreign scripts; the debugger may
            const source = (await import("node:fs")).readFileSync(axe, "utf8");
            await page.evaluate(source);
        });
        const result = await page.evaluate(async () => {
            const tool = (
                window as unknown as {
                    axe: {
                        run: (
                            context: Document,
                            options: object,
                        ) => Promise<{
                            violations: {
                                id: string;
                                nodes: { target: string[]; failureSummary?: string }[];
                            }[];
                        }>;
                    };
                }
            ).axe;
            return tool.run(document, {
                runOnly: ["wcag2a", "wcag2aa", "wcag21a", "wcag21aa", "wcag22aa", "best-practice"],
            });
        });
        return result.violations.flatMap((violation) =>
            violation.nodes.map(
                (node) => `${violation.id}: ${node.target.join(" ")}\n${node.failureSummary ?? ""}`,
            ),
        );
    }

    it.each([
        ["light", 1280],
        ["dark", 1280],
        ["light", 360],
    ] as const)("finds nothing wrong: %s, %i pixels", async (colorScheme, width) => {
        expectFaults(/Content Security Policy|violates/);
        const page = await enter("/board", { colorScheme, viewport: { width, height: 800 } });
        for (const view of views) {
            await go(page, `/${view}`);
            await settled(page, view);
            expect.soft(await violations(page), view).toEqual([]);
        }
    });

    it("finds nothing wrong with the form", async () => {
        expectFaults(away, /Content Security Policy|violates/);
        const page = await visit();
        await page.getByLabel("Token").waitFor();
        expect(await violations(page)).toEqual([]);
    });

    mockIt("finds nothing wrong with a question", async () => {
        expectFaults(/Content Security Policy|violates/);
        const page = await enter("/containers");
        await page.getByRole("button", { name: "Remove clock" }).click();
        await page.getByRole("dialog").waitFor();
        expect(await violations(page)).toEqual([]);
    });

    it("is told what is going on", async () => {
        const page = await enter(`/log?c=${container}`);
        await settled(page, "log");
        const snapshot = await page.locator("body").ariaSnapshot();
        for (const part of ["banner", "navigation", "main", "heading", "toolbar", "region"]) {
            expect(snapshot).toContain(part);
        }
        // the terminal itself is no text for a screen reader; its rows are, beside it
        await page.waitForTimeout(1500);
        expect((await page.locator(".log-window pre").textContent())?.length).toBeGreaterThan(10);
    });
});

describe("the keyboard", () => {
    it("alone gets everywhere, and is always seen", async () => {
        const page = await enter("/containers");
        await page.getByRole("table").waitFor();
        await page.reload();
        await page.getByRole("table").waitFor();
        const stops: string[] = [];
        for (let step = 0; step < 14; step++) {
            await page.keyboard.press("Tab");
            const stop = await page.evaluate(() => {
                const element = document.activeElement as HTMLElement;
                const style = getComputedStyle(element);
                const name = element.getAttribute("aria-label") ?? element.textContent ?? "";
                return {
                    name,
                    seen: style.outlineStyle !== "none" && Number.parseFloat(style.outlineWidth) >= 2,
                };
            });
            expect(stop.seen, `focus on ${stop.name}`).toBe(true);
            stops.push(stop.name);
        }
        expect(stops.slice(0, 3)).toEqual(["Skip to the content", "Board", "Containers"]);
        await shot(page, "keyboard-focus");
    });

    it("skips to the content and follows links to headings", async () => {
        const page = await enter("/board");
        await page.reload();
        await page.getByRole("navigation", { name: "Views" }).waitFor();
        await page.keyboard.press("Tab");
        await page.keyboard.press("Enter");
        expect(await page.evaluate(() => document.activeElement?.textContent)).toBe("Board");
        await page.getByRole("link", { name: "Images" }).focus();
        await page.keyboard.press("Enter");
        await page.getByRole("heading", { name: "Images", level: 1 }).waitFor();
        expect(await page.evaluate(() => document.activeElement?.textContent)).toBe("Images");
    });

    mockIt("answers questions, and comes back to where it was", async () => {
        const page = await enter("/containers");
        await page.getByRole("button", { name: "Remove import" }).focus();
        await page.keyboard.press("Enter");
        await page.getByRole("dialog").waitFor();
        await page.keyboard.press("Escape");
        await page.getByRole("dialog").waitFor({ state: "detached" });
        expect(await page.evaluate(() => document.activeElement?.getAttribute("aria-label"))).toBe(
            "Remove import",
        );
        await page.keyboard.press("Enter");
        await page.getByRole("dialog").waitFor();
        await page.keyboard.press("Tab");
        await page.keyboard.press("Enter");
        await page.getByText("import removed.").waitFor();
    });

    it("scrolls, pauses and searches the log", async () => {
        const page = await enter(`/log?c=${container}`, { viewport: { width: 1280, height: 420 } });
        await settled(page, "log");
        await logHas(page, (rows) => rows.filter(Boolean).length > 5, "lines");
        await page.locator(".log-scroller").focus();
        await page.keyboard.press("ArrowUp");
        await page.getByRole("button", { name: "Follow", pressed: false }).waitFor();
        await page.keyboard.press("End");
        await page.getByRole("button", { name: "Follow", pressed: true }).waitFor();
        await page.keyboard.press("p");
        await page.getByRole("button", { name: "Paused", pressed: true }).waitFor();
        await page.keyboard.press("p");
        await page.getByRole("button", { name: "Pause", pressed: false }).waitFor();
        await page.keyboard.press("/");
        expect(await page.evaluate(() => document.activeElement?.id)).toBe("pattern-search");
        await page.keyboard.press("Tab");
        await page.keyboard.press("Shift+Tab");
        expect(await page.evaluate(() => document.activeElement?.id)).toBe("pattern-search");
    });
});
