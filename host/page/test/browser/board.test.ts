/*
 * What the daemon does for a page on a board, with real containers.
 */
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import type { Page } from "playwright-core";
import { describe, expect, it, onTestFinished } from "vitest";
import {
    away,
    container,
    describeOnBoard,
    enter,
    expectFaults,
    go,
    logHas,
    logRows,
    onBoard,
    plugins,
    rawOnBoard,
    renderers,
    run,
    shot,
    token,
} from "./world";

const address = process.env.QX_PAGE_URL ?? "";
const slowly = { timeout: 30_000 };

/** Asks the daemon past the page. */
async function ask(method: string, path: string, body?: string): Promise<Response> {
    const headers = { Authorization: `Bearer ${token}` };
    return fetch(new URL(`/api/v1${path}`, address), { method, headers, body: body ?? null });
}

const live = (page: Page) => page.locator(".connections").getByText("live");

/** Ends the daemon by a signal; it comes back after a while as a service manager would start it. */
const restart = (signal: string, seconds: number) =>
    onBoard(
        `daemon=$(pgrep -x qxcontainerd)
        program=$(readlink /proc/$daemon/exe)
        kill -$1 $daemon
        while kill -0 $daemon 2>/dev/null; do sleep 0.1; done
        sleep $2
        env -u LD_LIBRARY_PATH setsid "$program" >>/tmp/daemon.out 2>&1 </dev/null &`,
        signal,
        String(seconds),
    );

/** Writes numbers, also over its restarts, ten or so a second. */
const counting = `trap 'told=1' TERM
    while [ -z "$told" ]; do
        number=$(($(cat /number 2>/dev/null) + 1))
        echo $number >/number
        echo "number $number"
        sleep 0.1
    done`;

/** What the log holds, as it is downloaded. */
async function held(page: Page): Promise<string[]> {
    await page.getByText("Download", { exact: true }).click();
    const [file] = await Promise.all([
        page.waitForEvent("download"),
        page.getByRole("button", { name: "Lines shown here" }).click(),
    ]);
    await page.getByText("Download", { exact: true }).click();
    return readFileSync((await file.path()) as string, "utf8").split("\n");
}

/** The numbers at the ends of lines. */
const numbersIn = (lines: string[]) =>
    lines.flatMap((line) => {
        const number = / number (\d+)/.exec(line)?.[1];
        return number ? [Number(number)] : [];
    });

const from = (first: number, count: number) => Array.from({ length: count }, (_, index) => first + index);

describeOnBoard("access", () => {
    it("ends when the token is taken back, also in the log", async () => {
        expectFaults(away);
        const tokens = '"$(dirname "$(readlink "/proc/$(pgrep -x qxcontainerd)/exe")")/qxctl" token';
        const passing = await onBoard(`unset LD_LIBRARY_PATH; ${tokens} create passing`);
        const page = await enter(`/log?c=${container}`, {}, passing);
        await live(page).waitFor();
        await onBoard(`unset LD_LIBRARY_PATH; ${tokens} rm passing`);
        await page.getByLabel("Token").waitFor();
        expect(await page.getByRole("alert").textContent()).toContain("no longer valid");
    });
});

describeOnBoard("the board", () => {
    it("shows cores, strangers on them, and what is to be done", async () => {
        const page = await enter("/board");
        const cores = page.getByRole("list", { name: "Who has which core" }).getByRole("listitem");
        await cores.first().waitFor();
        expect(await cores.count()).toBe(2);
        expect(await cores.nth(0).textContent()).toContain("Linux");
        expect(await cores.nth(1).textContent()).toContain("containers");
        const stranger = await onBoard(
            `set -- $(find /sys/fs/cgroup -path '*/libpod_parent/conmon/cgroup.procs' | grep cpuset ||
                find /sys/fs/cgroup -path '*/libpod_parent/conmon/cgroup.procs')
            setsid sleep 60 >/dev/null 2>&1 </dev/null &
            echo $! >"$1"
            echo $!`,
        );
        onTestFinished(async () => {
            await onBoard("kill $1", stranger);
        });
        await page.getByText("1 foreign").waitFor();
        await page.getByText(`${stranger} sleep`).waitFor();
        const key = "/mnt/cfdrive/containers/certs/server.key";
        await onBoard('[ -e "$1" ] || : >"$1"; mv "$1" "$1.away"', key);
        onTestFinished(async () => {
            await onBoard('mv "$1.away" "$1"', key);
        });
        const check = page.getByRole("listitem").filter({ hasText: "Certificates of the TCP service" });
        await check.getByText("missing: ").waitFor();
        await check.getByText("To do: Put ca.crt, server.crt and server.key into").waitFor();
        await shot(page, "board-to-do");
    });

    it("stops the service only after a question, and starts it; a log follows", async () => {
        expectFaults(away);
        onTestFinished(async () => {
            await ask("POST", "/service/enable");
            await ask("POST", "/service/start");
        });
        const log = await enter(`/log?c=${container}`);
        await live(log).waitFor();
        const page = await enter("/board");
        const service = page.getByRole("region", { name: "Service" });
        await service.getByRole("button", { name: "Stop" }).click();
        await page.keyboard.press("Escape");
        await service.getByText("running").waitFor();
        await service.getByRole("button", { name: "Stop" }).click();
        await page.getByRole("dialog").getByRole("button", { name: "Stop the service" }).click();
        await page.getByText("Service stopped.").waitFor(slowly);
        await service.getByText("does not answer").waitFor();
        await live(log).waitFor({ state: "detached" });
        await go(page, "/containers");
        await page.locator(".notice.failed").first().waitFor();
        await shot(page, "containers-without-podman");
        await go(page, "/board");
        await service.getByRole("button", { name: "Disable" }).click();
        await page.getByText("Service disabled.").waitFor();
        await service.getByRole("button", { name: "Start" }).click();
        await page.getByRole("alert").getByText("The container service is disabled; enable it").waitFor();
        await service.getByRole("button", { name: "Enable" }).click();
        await service.getByRole("button", { name: "Start" }).click();
        await page.getByText("Service started.").waitFor(slowly);
        await live(log).waitFor(slowly);
        const before = await logRows(log);
        await logHas(log, (rows) => rows.join() !== before.join(), "new lines");
    });

    it("tells that Podman was lost, and that it came back", async () => {
        expectFaults(away);
        const page = await enter("/board");
        await onBoard("pkill -KILL -f '^podman system service --time=0 unix'");
        const service = page.getByRole("region", { name: "Service" });
        await service.getByText("Last restarts (1)").click(slowly);
        await service.getByText("Podman is gone").first().waitFor();
        await service.getByText("answers, ").waitFor(slowly);
        await service.getByText("on-failure, 1 of 5 in a row").waitFor();
        await shot(page, "podman-lost");
    });

    it("that hangs is seen to be silent, also by a log, and comes back", async () => {
        expectFaults(away);
        const page = await enter("/containers");
        const log = await enter(`/log?c=${container}`);
        await live(log).waitFor();
        await onBoard("pkill -STOP -x qxcontainerd");
        try {
            await page.getByText("Not up to date: The daemon did not answer within 10 s.").waitFor(slowly);
            await page.getByText("no answer").waitFor(slowly);
            await page.getByRole("link", { name: container, exact: true }).waitFor();
            const silence = "disconnected: The daemon does not answer.";
            await logHas(log, (rows) => rows.some((row) => row.includes(silence)), "the silence");
            await shot(page, "containers-not-up-to-date");
        } finally {
            await onBoard("pkill -CONT -x qxcontainerd");
        }
        await page.getByText("Not up to date").waitFor({ state: "detached", ...slowly });
        await live(log).waitFor(slowly);
    });
});

describeOnBoard("containers", () => {
    it("are removed after a question, running ones with force", async () => {
        await run("page-ended", "exit 3");
        await run("page-running", "exec sleep 1000");
        const page = await enter("/containers");
        await page
            .getByRole("row")
            .filter({ hasText: "page-ended" })
            .getByText(/exited/)
            .waitFor();
        await page.getByRole("button", { name: "Remove page-ended" }).click();
        await page.getByRole("button", { name: "Cancel" }).click();
        await page.getByRole("link", { name: "page-ended", exact: true }).waitFor();
        await page.getByRole("button", { name: "Remove page-ended" }).click();
        await page.getByRole("dialog").getByRole("button", { name: "Remove" }).click();
        await page.getByText("page-ended removed.").waitFor();
        await page.getByRole("button", { name: "Remove page-running" }).click();
        await page.getByText("It runs and is stopped first.").waitFor();
        await page.getByRole("button", { name: "Stop and remove" }).click();
        await page.getByText("page-running removed.").waitFor();
        await page.getByRole("link", { name: "page-running", exact: true }).waitFor({ state: "detached" });
        expect(await onBoard("podman ps --all --quiet --filter name=page-")).toBe("");
    });

    it("that refuse say why", async () => {
        expectFaults(away);
        onTestFinished(async () => {
            await onBoard("podman rm --force page-refuses");
        });
        await onBoard("podman create --name page-refuses --network=none localhost/busybox:1 /nothing");
        const page = await enter("/containers");
        await page.getByRole("button", { name: "Start page-refuses", exact: true }).click();
        await page
            .getByRole("alert")
            .getByText(/^page-refuses: .*\/nothing/)
            .waitFor();
    });
});

describeOnBoard("the log", () => {
    it("goes on when the container is started again, and when it is made anew", async () => {
        await run(
            "page-again",
            `if [ -e /before ]; then echo after the start; exec sleep 1000; fi
            touch /before
            echo before the end
            until [ -e /end ]; do sleep 0.1; done
            exit 3`,
        );
        const page = await enter("/log?c=page-again");
        await live(page).waitFor();
        await logHas(page, (rows) => rows.some((row) => row.includes("before the end")), "the line");
        await onBoard("podman exec page-again touch /end");
        await page.getByText("not running").waitFor();
        const end = "the container does not run: exit code 3";
        await logHas(page, (rows) => rows.some((row) => row.includes(end)), "the end");
        await onBoard("podman start page-again");
        await live(page).waitFor();
        const again = await logHas(
            page,
            (rows) => rows.some((row) => row.includes("after the start")),
            "the new line",
        );
        expect(again.filter((row) => row.includes("before the end"))).toHaveLength(1);
        await run("page-again", "echo another one; exec sleep 1000");
        const anew = await logHas(
            page,
            (rows) => rows.some((row) => row.includes("another one")),
            "the line of the other container",
        );
        expect(anew.some((row) => row.includes("the container was made anew"))).toBe(true);
        await onBoard("podman rm --force page-again");
        await page.locator(".connections").getByText("removed").waitFor();
    });

    it("of nobody says so", async () => {
        expectFaults(away);
        const page = await enter("/log?c=nobody");
        await page.getByText("There is no such container.").waitFor();
    });

    it("of a terminal has no streams", async () => {
        await run(
            "page-terminal",
            "printf '\\033[32mgreen\\033[0m\\n'; echo plain >&2; exec sleep 1000",
            [],
            ["--tty"],
        );
        const page = await enter("/log?c=page-terminal");
        const rows = await logHas(page, (all) => all.filter(Boolean).length === 2, "both lines");
        expect(rows.slice(0, 2).map((row) => row.slice(12))).toEqual(["   green", "   plain"]);
        expect((await held(page)).filter((line) => line.includes("Z tty "))).toHaveLength(2);
    });

    it("of several containers is merged by time, also what was there before", async () => {
        // in turn, each after the other has written
        const turns = `for turn in 1 2 3 4 5; do
                until [ "$(cat /turns/now)" = "$1 $turn" ]; do sleep 0.05; done
                echo "$1 $turn"
                sleep 0.1
                if [ $1 = left ]; then echo "right $turn"; else echo "left $((turn + 1))"; fi >/turns/now
            done
            exec sleep 1000`;
        const place = await onBoard("place=$(mktemp -d); echo left 1 >$place/now; echo $place");
        onTestFinished(async () => {
            await onBoard('rm -r "$1"', place);
        });
        for (const side of ["left", "right"]) {
            await run(`page-${side}`, turns, [side], ["--volume", `${place}:/turns`]);
        }
        await onBoard('until grep -q "left 6" "$1/now"; do sleep 0.1; done', place);
        const page = await enter("/containers");
        await page.getByRole("checkbox", { name: "Choose page-left" }).check();
        await page.getByRole("checkbox", { name: "Choose page-right" }).check();
        await page.getByRole("link", { name: "Log of 2 containers" }).click();
        const rows = await logHas(page, (all) => all.filter(Boolean).length >= 10, "all turns");
        const turn = (number: number) => [`page-left ${number}`, `page-right ${number}`];
        expect(
            rows
                .filter(Boolean)
                .map((row) => row.slice(13).replace(/^(page-\w+) +(\w+) (\d)$/, "$1 $3 $2"))
                .map((row) => row.replace(/ (left|right)$/, "")),
        ).toEqual([1, 2, 3, 4, 5].flatMap(turn));
        const times = rows.filter(Boolean).map((row) => row.slice(0, 12));
        expect(times).toEqual([...times].sort());
    });

    it("of a page that was asleep says how many lines it has missed", async () => {
        const count = 16_000;
        // two lines fill the 8 KiB in which the output is read: none is cut
        await run(
            "page-numbers",
            `padding=$(head -c 4081 /dev/zero | tr '\\0' x)
            until [ -e /open ]; do sleep 0.1; done
            seq -w ${count} | sed "s/.*/ number & $padding/"
            echo "that was all"
            while sleep 0.5; do echo "nothing more"; done`,
        );
        const page = await enter("/log?c=page-numbers");
        await live(page).waitFor();
        const asleep = await renderers();
        const signal = (name: NodeJS.Signals) => {
            for (const process_ of asleep) {
                process.kill(process_, name);
            }
        };
        signal("SIGSTOP");
        try {
            await onBoard(
                `podman exec page-numbers touch /open
                program=$(readlink "/proc/$(pgrep -x qxcontainerd)/exe")
                LD_LIBRARY_PATH= "$(dirname "$program")/qxctl" logs --follow page-numbers | grep -q 'that was all'`,
            );
        } finally {
            signal("SIGCONT");
        }
        await logHas(page, (rows) => rows.some((row) => row.includes("that was all")), "the end");
        const lines = await held(page);
        let last = 0;
        let missed = 0;
        for (const line of lines) {
            const number = numbersIn([line])[0];
            const skipped = / skipped ([\d\u202f]+) lines?: this page was too slow/.exec(line)?.[1];
            if (number !== undefined) {
                // the oldest lines may be gone already
                expect(last === 0 || number === last + 1).toBe(true);
                last = number;
            } else if (skipped) {
                missed += Number(skipped.replace(/\D/g, ""));
                last += Number(skipped.replace(/\D/g, ""));
            }
        }
        expect(last).toBe(count);
        expect(missed).toBeGreaterThan(0);
        await page.getByLabel("Filter", { exact: true }).fill("skipped");
        await logHas(page, (rows) => /skipped .* lines/.test(rows[0] ?? ""), "what was skipped");
        await shot(page, "log-skipped");
    }, 120_000);

    it.each([
        ["a crash", "KILL"],
        ["a restart", "TERM"],
    ])(
        "comes back after %s of the daemon, without doubles or gaps",
        async (_what, signal) => {
            expectFaults(away);
            await run("page-counts", counting, [], ["--restart=always", "--stop-timeout=5"]);
            const page = await enter("/log?c=page-counts");
            await live(page).waitFor();
            const [restarting] = await Promise.all([
                restart(signal, 4),
                page.getByText("disconnected,").waitFor(),
            ]);
            expect(restarting).toBe("");
            await shot(page, `log-${signal.toLowerCase()}`);
            await live(page).waitFor(slowly);
            await page.getByText("no answer").waitFor({ state: "detached" });
            const seen = Math.max(...numbersIn(await logRows(page)));
            await logHas(page, (rows) => Math.max(...numbersIn(rows)) > seen + 10, "new lines");
            const lines = await held(page);
            const numbers = numbersIn(lines);
            expect(numbers).toEqual(from(1, numbers.length));
            expect(numbers.length).toBeGreaterThan(20);
            expect(lines.filter((line) => line.includes(" disconnected: "))).toHaveLength(1);
            expect(lines.filter((line) => line.includes(" connected again"))).toHaveLength(1);
        },
        90_000,
    );
});

describeOnBoard("a crash of the daemon", () => {
    it("is seen in every view that is open, and nothing that was typed is lost", async () => {
        expectFaults(away);
        const list = await enter("/containers");
        const messages = await enter("/messages");
        const editor = await enter("/projects/+new");
        await messages.getByText("live").waitFor();
        await editor.getByLabel("Name").fill("page-kept.yaml");
        await editor.getByLabel("Text").fill("services:\n  kept:\n    image: localhost/busybox:1\n");
        await restart("KILL", 4);
        await list.getByText("Not up to date: The daemon cannot be reached.").waitFor();
        await messages.getByText("disconnected, trying again").waitFor();
        await list.getByText("Not up to date").waitFor({ state: "detached", ...slowly });
        await messages.getByText("live").waitFor(slowly);
        // this is told by the daemon that came back
        await messages
            .getByRole("cell", { name: "Podman services of a host that did not stop" })
            .first()
            .waitFor();
        await list.getByRole("button", { name: `Restart ${container}`, exact: true }).click();
        await list.getByText(`${container} restarted.`).waitFor(slowly);
        onTestFinished(async () => {
            await ask("DELETE", "/compose-files/page-kept.yaml");
        });
        await editor.getByRole("button", { name: "Save" }).click();
        await editor.getByText("page-kept.yaml saved.").waitFor(slowly);
    }, 90_000);
});

/** Two services that write their names. */
const pair = ["one", "two"]
    .map(
        (name) =>
            `  ${name}:\n    image: localhost/busybox:1\n    network_mode: none\n    stop_grace_period: 0s\n` +
            `    command: [sh, -c, "while :; do echo ${name}; sleep 0.2; done"]\n`,
    )
    .join("");

/** The compose file of a test, deleted with its containers in the end. */
function theFile(name: string): string {
    onTestFinished(async () => {
        // only containers that do not run are removed
        await ask("POST", `/projects/${name}/stop`);
        await ask("POST", `/projects/${name}/remove`);
        await ask("DELETE", `/compose-files/${name}`);
    });
    return name;
}

describeOnBoard("projects", () => {
    it("are created from a new file, started, stopped and removed, each with its result and log", async () => {
        const file = theFile("page-pair.yaml");
        const page = await enter("/projects/+new");
        await page.getByLabel("Name").fill(file);
        await page.getByLabel("Text").fill(`services:\n${pair}`);
        await page.getByRole("button", { name: "Check" }).click();
        await page.getByText("The compose tool takes it.").waitFor();
        await page.getByRole("button", { name: "Save" }).click();
        await page.getByText(`${file} saved.`).waitFor();
        await go(page, "/projects");
        const project = page.getByRole("region", { name: "Project page-pair" });
        const row = project.getByRole("row", { name: /page-pair-one-1/ });
        const transition = async () => (await row.textContent())?.replace(/\s+/g, " ");
        await project.getByText("no containers").waitFor();
        await project.getByRole("button", { name: "Create project" }).click();
        await project.getByText("Create: code 1, success, containers were made").waitFor(slowly);
        expect(await transition()).toMatch(/none.*→.*created/);
        await project.getByRole("button", { name: "Start project" }).click();
        await project.getByText("Start: code 0, success").waitFor(slowly);
        expect(await transition()).toMatch(/created.*→.*running/);
        await project.getByRole("list", { name: "Containers" }).getByText("running").nth(1).waitFor();
        await shot(page, "project-started");
        await project.getByRole("button", { name: "Start project" }).click();
        await project.getByText("code 7, success, but no container changed").waitFor(slowly);

        const log = await enter("/projects");
        await log.getByRole("link", { name: "Log of project page-pair" }).click();
        await log.getByRole("heading", { name: "Log of page-pair" }).waitFor();
        await live(log).nth(1).waitFor();
        const shown = await logHas(
            log,
            (rows) => rows.filter(Boolean).length > 10 && /one$/m.test(rows.join("\n")),
            "lines",
        );
        const names = shown.flatMap((line) => /page-pair-(one|two)-1 +(one|two)$/.exec(line)?.slice(1) ?? []);
        expect(new Set(names)).toEqual(new Set(["one", "two"]));
        const times = shown.filter((line) => /^\d\d:/.test(line)).map((line) => line.slice(0, 12));
        expect(times).toEqual([...times].sort());
        await shot(log, "log-project-on-board");
        await log.close();

        await project.getByRole("button", { name: "Stop project" }).click();
        await page.getByRole("button", { name: "Stop containers" }).click();
        await project.getByText("Stop: code 0").waitFor(slowly);
        expect(await transition()).toMatch(/running.*→.*exited/);
        await project.getByRole("button", { name: "Remove project" }).click();
        await page.getByRole("button", { name: "Remove containers" }).click();
        await project.getByText("Remove: code 0").waitFor(slowly);
        await project.getByText("no containers").waitFor();
        expect(await onBoard("podman ps --all --quiet --filter name=page-pair")).toBe("");
    }, 120_000);

    it("take a container into their log that joins them", async () => {
        const file = theFile("page-grows.yaml");
        await ask("PUT", `/compose-files/${file}`, `services:\n${pair.slice(0, pair.indexOf("  two:"))}`);
        await ask("POST", `/projects/${file}/create`);
        await ask("POST", `/projects/${file}/start`);
        const page = await enter("/log?project=page-grows");
        await live(page).first().waitFor();
        await ask("PUT", `/compose-files/${file}`, `services:\n${pair}`);
        await ask("POST", `/projects/${file}/create`);
        await ask("POST", `/projects/${file}/start`);
        await live(page).nth(1).waitFor(slowly);
        await logHas(
            page,
            (rows) => ["one", "two"].every((name) => rows.some((row) => row.endsWith(` ${name}`))),
            "both",
        );
    }, 90_000);

    it("that cannot be made say why", async () => {
        const file = theFile("page-fails.yaml");
        await ask(
            "PUT",
            `/compose-files/${file}`,
            "services:\n  one:\n    image: localhost/nothing:1\n    pull_policy: never\n",
        );
        const page = await enter("/projects");
        const project = page.getByRole("region", { name: "Project page-fails" });
        await project.getByRole("button", { name: "Create project" }).click();
        await project.getByText("Create: code 6, the compose tool failed").waitFor(slowly);
        await project.getByText("no such image: localhost/nothing:1").waitFor();
    }, 90_000);

    it("are not overwritten when somebody else changed the file", async () => {
        const file = theFile("page-shared.yaml");
        const text = (name: string) => `services:\n  ${name}:\n    image: localhost/busybox:1\n`;
        await ask("PUT", `/compose-files/${file}`, text("first"));
        const page = await enter(`/projects/${file}`);
        await page.getByLabel("Text").fill(text("mine"));
        const other = await enter(`/projects/${file}`);
        await other.getByLabel("Text").fill(text("theirs"));
        await other.getByRole("button", { name: "Save" }).click();
        await other.getByText(`${file} saved.`).waitFor();
        await page.getByRole("button", { name: "Save" }).click();
        await page.getByRole("dialog").getByText("Somebody changed the file").waitFor();
        await page.getByRole("dialog").getByRole("button", { name: "Cancel" }).click();
        expect(await (await ask("GET", `/compose-files/${file}`)).text()).toBe(text("theirs"));
    });
});

describe.skipIf(!plugins)("plugins", () => {
    it("are refused, uploaded, replaced, switched, loaded by the next daemon, and deleted", async () => {
        onTestFinished(async () => {
            await ask("POST", "/plugins/sensors.crp/activate");
            await ask("DELETE", "/plugins/network.crp");
            await ask("DELETE", "/plugins/sensors.crp");
        });
        expectFaults(away);
        const page = await enter("/plugins");
        const upload = page.getByLabel("Upload a plugin");
        const file = (name: string, buffer: Buffer) => ({
            name,
            mimeType: "application/octet-stream",
            buffer,
        });
        await upload.setInputFiles(file("bad name.crp", Buffer.alloc(1000)));
        await page.getByRole("alert").getByText("The name may have letters").waitFor();
        await upload.setInputFiles(file("tiny.crp", Buffer.alloc(1000)));
        await page.getByRole("alert").getByText("tiny.crp: ").waitFor();
        await page.getByText("No plugin was found.").waitFor();
        for (const name of ["network.crp", "sensors.crp"]) {
            await upload.setInputFiles(`${plugins}/${name}`);
            await page.getByText(`${name} uploaded.`).waitFor();
        }
        await upload.setInputFiles(`${plugins}/network.crp`);
        await page.getByRole("dialog").getByText("Version 1.0.0 of network is there already.").waitFor();
        await page.getByRole("dialog").getByRole("button", { name: "Replace" }).click();
        await page.getByText("network.crp replaced.").waitFor();
        await page.getByRole("button", { name: "Deactivate sensors.crp" }).click();
        await page.getByText("sensors.crp deactivated, from the next start of the daemon.").waitFor();
        await page.getByText("off from the daemon's next start").waitFor();
        await page.getByRole("button", { name: "Activate sensors.crp", exact: true }).waitFor();
        const network = page.getByRole("row", { name: /network\.crp/ });
        const sensors = page.getByRole("row", { name: /sensors\.crp/ });
        await network.getByText("not loaded").waitFor();
        await restart("TERM", 0);
        await network.getByText(/(?<!not )loaded/).waitFor(slowly);
        await sensors.getByText("not loaded").waitFor();
        await sensors.getByText("deactivated").waitFor();
        await shot(page, "plugins-loaded");
        await page.getByRole("button", { name: "Activate sensors.crp", exact: true }).click();
        await page.getByText("sensors.crp activated, from the next start of the daemon.").waitFor();
        await sensors.getByText("on from the daemon's next start").waitFor();
        await onBoard('rm "$(find /userstorage1 -name sensors.crp)"');
        await page.getByRole("button", { name: "Rescan" }).click();
        await page.getByText("The plugin directories were read again.").waitFor();
        await sensors.waitFor({ state: "detached" });
        await page.getByRole("button", { name: "Delete network.crp" }).click();
        await page.getByRole("dialog").getByText("stays loaded until the board restarts").waitFor();
        await page.getByRole("dialog").getByRole("button", { name: "Delete" }).click();
        await page.getByText("network.crp deleted.").waitFor();
    }, 90_000);
});

describeOnBoard("images", () => {
    it("are refused, loaded, and removed with those that use them only after that was said", async () => {
        expectFaults(away);
        const name = "localhost/page-test:1";
        const archive = await rawOnBoard(
            `podman import --quiet --change CMD=page /opt/board/busybox.tar "$1" >/dev/null
            podman save --quiet "$1"
            podman rmi "$1" >/dev/null`,
            name,
        );
        onTestFinished(async () => {
            await onBoard('podman rmi --force --ignore "$1"', name);
        });
        const page = await enter("/images");
        const upload = page.getByLabel("Load an archive");
        const file = (buffer: Buffer) => ({ name: "page.tar", mimeType: "application/x-tar", buffer });
        await upload.setInputFiles(file(Buffer.alloc(100_000, "no archive")));
        await page.getByRole("alert").getByText("page.tar: ").waitFor(slowly);
        await upload.setInputFiles(file(archive));
        await page.getByText(`Loaded ${name}.`).waitFor(slowly);
        const row = page.getByRole("row").filter({ hasText: name });
        await row.waitFor();
        await onBoard('podman run --detach --name page-uses --network=none "$1" sleep 1000', name);
        await row.locator('[data-head="Containers"]', { hasText: "1" }).waitFor();
        await page.getByRole("button", { name: `Remove ${name}` }).click();
        await page
            .getByRole("dialog")
            .getByText("1 container made of it is removed too, also when running.")
            .waitFor();
        await page.getByRole("button", { name: "Remove with its containers" }).click();
        await page.getByText(`${name} removed.`).waitFor(slowly);
        await row.waitFor({ state: "detached" });
        expect(await onBoard("podman ps --all --quiet --filter name=page-uses")).toBe("");
    }, 90_000);

    it("are not kept when their upload is cancelled", async () => {
        const used = () => onBoard("df --output=used /userstorage1 | tail -n 1");
        const page = await enter("/images");
        const before = Number(await used());
        const session = await page.context().newCDPSession(page);
        await session.send("Network.enable");
        await session.send("Network.emulateNetworkConditions", {
            offline: false,
            latency: 0,
            downloadThroughput: -1,
            uploadThroughput: 4_000_000,
        });
        const place = mkdtempSync(join(tmpdir(), "page-"));
        onTestFinished(() => rmSync(place, { recursive: true }));
        const archive = join(place, "big.tar");
        writeFileSync(archive, Buffer.alloc(40_000_000, 1));
        await page.getByLabel("Load an archive").setInputFiles(archive);
        await page.getByRole("progressbar").waitFor();
        await page.getByText(/big\.tar: [1-9]\d? % of 38 MiB/).waitFor();
        await expect.poll(async () => Number(await used()) - before, slowly).toBeGreaterThan(4000);
        await page.getByRole("button", { name: "Cancel" }).click();
        await page.getByText("big.tar: Cancelled; nothing was kept.").waitFor();
        await expect.poll(async () => Number(await used()) - before, slowly).toBeLessThan(1000);
    });
});

describeOnBoard("settings", () => {
    it("are checked and saved", async () => {
        const before = ((await (await ask("GET", "/service")).json()) as { settings: { tcpPort: number } })
            .settings;
        onTestFinished(async () => {
            const body = JSON.stringify({ tcpPort: before.tcpPort });
            await fetch(new URL("/api/v1/service/settings", address), {
                method: "PATCH",
                headers: { Authorization: `Bearer ${token}`, "Content-Type": "application/json" },
                body,
            });
        });
        const page = await enter("/settings");
        const port = page.getByLabel("TCP port");
        await port.fill("80");
        await page.getByText("The board itself needs port 80.").waitFor();
        expect(await page.getByRole("button", { name: "Save" }).isDisabled()).toBe(true);
        await page.getByLabel("Cores for containers").fill("2");
        await page.getByText("A number from 0 to 1.").waitFor();
        await page.getByLabel("Cores for containers").fill("1");
        await port.fill("18443");
        await page.getByRole("button", { name: "Save" }).click();
        await page.getByText("Saved; in effect after the next start").waitFor();
        await page.reload();
        await port.waitFor();
        expect(await port.inputValue()).toBe("18443");
        await onBoard("grep -q 18443 /mnt/cfdrive/containers/container_rte_settings.json");
    });
});

describeOnBoard("messages", () => {
    it("of any program of the board come live, and can be filtered", async () => {
        const page = await enter("/messages");
        await page.getByText("live").waitFor();
        const time = new Date().toISOString();
        const text = `A <b>program</b> broke at ${time}.`;
        const message = { number: 7, source: "Page test", text };
        await onBoard(
            'printf "%s\\n" "$@" >>/run/quolex/messages.jsonl',
            JSON.stringify({ time, severity: 1, ...message, text: "All is well." }),
            JSON.stringify({ time, severity: 3, ...message }),
        );
        await page.getByRole("cell", { name: text }).waitFor();
        await page.getByRole("cell", { name: "All is well." }).first().waitFor();
        await page.getByLabel("Show").selectOption("3");
        await page.getByRole("cell", { name: "All is well." }).waitFor({ state: "detached" });
        await page.getByPlaceholder("text").fill("PROGRAM");
        await page.getByRole("cell", { name: text }).waitFor();
        await page.getByPlaceholder("text").fill("no such words");
        await page.getByText("No message fits.").waitFor();
    });
});
