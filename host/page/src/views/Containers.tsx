import { useState } from "preact/hooks";
import { segment } from "../api/client";
import * as types from "../api/types";
import { useShared } from "../context";
import { counted } from "../format";
import { Act, Loading, Stale, State, Table, useActing } from "../parts/basics";
import { usePoll } from "../poll";
import { addressOf } from "../route";

const done = { start: "started", stop: "stopped", restart: "restarted" };

export function Containers() {
    const { api, ask } = useShared();
    const { data, problem, refresh } = usePoll(
        (signal) => api.get("/containers", types.containers, signal),
        "containers",
    );
    const { busy, act } = useActing(refresh);
    const [chosen, setChosen] = useState<ReadonlySet<string>>(new Set());

    const run = (name: string, action: keyof typeof done) =>
        act(name, `${name} ${done[action]}.`, () => api.act(`/containers/${segment(name)}/${action}`));
    const remove = async (container: types.Container) => {
        const runs = container.state === "running" || container.state === "paused";
        const yes = await ask({
            title: `Remove ${container.name}?`,
            text: `${runs ? "It runs and is stopped first. " : ""}Its log and everything written outside of volumes is lost.`,
            action: runs ? "Stop and remove" : "Remove",
            danger: true,
        });
        if (yes) {
            await act(container.name, `${container.name} removed.`, () =>
                api.act(`/containers/${segment(container.name)}${runs ? "?force=true" : ""}`, {
                    method: "DELETE",
                }),
            );
        }
    };
    const choose = (name: string, on: boolean) =>
        setChosen(
            (before) => new Set([...[...before].filter((other) => other !== name), ...(on ? [name] : [])]),
        );
    const merged =
        data?.containers.map((container) => container.name).filter((name) => chosen.has(name)) ?? [];

    return (
        <>
            <div class="head">
                <h1 tabIndex={-1}>Containers</h1>
                {data && data.containers.length > 0 ? (
                    merged.length > 0 ? (
                        <a class="button" href={addressOf.log(merged)}>
                            Log of {merged.length === 1 ? merged[0] : `${merged.length} containers`}
                        </a>
                    ) : (
                        <span class="help">Tick containers to read their logs together.</span>
                    )
                ) : null}
            </div>
            <Stale problem={problem} hasData={data !== null} />
            {data ? (
                <Table
                    caption={counted(data.containers.length, "container")}
                    items={data.containers}
                    idOf={(container) => container.id}
                    empty="There are no containers."
                    columns={[
                        {
                            head: "Choose",
                            kind: "tick",
                            cell: (container) => (
                                <input
                                    type="checkbox"
                                    aria-label={`Choose ${container.name} for a log of several`}
                                    checked={chosen.has(container.name)}
                                    onChange={(event) => choose(container.name, event.currentTarget.checked)}
                                />
                            ),
                        },
                        {
                            head: "Name",
                            kind: "main",
                            cell: (container) => (
                                <a href={addressOf.container(container.name)}>{container.name}</a>
                            ),
                        },
                        {
                            head: "State",
                            cell: (container) => (
                                <>
                                    <State word={container.state} />
                                    <div class="aside">{container.status}</div>
                                </>
                            ),
                        },
                        { head: "Image", kind: "wide", cell: (container) => container.image },
                        {
                            head: "Project",
                            cell: (container) =>
                                container.project ? (
                                    <a
                                        href={addressOf.projectLog(container.project)}
                                        title="Log of the project"
                                    >
                                        {container.project}
                                    </a>
                                ) : (
                                    "–"
                                ),
                        },
                        {
                            head: "Ports",
                            kind: "wide",
                            cell: (container) => container.ports.join(", ") || "–",
                        },
                        {
                            head: "Actions",
                            kind: "actions",
                            cell: (container) => {
                                const off = busy.has(container.name);
                                const runs = container.state === "running";
                                return (
                                    <div class="buttons">
                                        <a
                                            class="button"
                                            href={addressOf.log([container.name])}
                                            aria-label={`Log of ${container.name}`}
                                        >
                                            Log
                                        </a>
                                        {runs ? (
                                            <Act
                                                off={off}
                                                aria-label={`Stop ${container.name}`}
                                                onClick={() => run(container.name, "stop")}
                                            >
                                                Stop
                                            </Act>
                                        ) : (
                                            <Act
                                                off={off}
                                                aria-label={`Start ${container.name}`}
                                                onClick={() => run(container.name, "start")}
                                            >
                                                Start
                                            </Act>
                                        )}
                                        <Act
                                            off={off}
                                            aria-label={`Restart ${container.name}`}
                                            onClick={() => run(container.name, "restart")}
                                        >
                                            Restart
                                        </Act>
                                        <Act
                                            off={off}
                                            class="danger"
                                            aria-label={`Remove ${container.name}`}
                                            onClick={() => remove(container)}
                                        >
                                            Remove …
                                        </Act>
                                    </div>
                                );
                            },
                        },
                    ]}
                />
            ) : problem ? null : (
                <Loading what="the containers" />
            )}
        </>
    );
}
