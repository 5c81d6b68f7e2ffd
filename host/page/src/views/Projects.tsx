import { useState } from "preact/hooks";
import { segment } from "../api/client";
import * as types from "../api/types";
import { useShared } from "../context";
import { Act, Loading, Stale, State, useActing } from "../parts/basics";
import { usePoll } from "../poll";
import { addressOf } from "../route";

const operations = ["create", "start", "stop", "remove"] as const;
type Operation = (typeof operations)[number];

const meanings: Record<number, string> = {
    0: "success",
    1: "success, containers were made",
    4: "there is no such file",
    5: "the compose tool could not be started",
    6: "the compose tool failed",
    7: "success, but no container changed",
    8: "unexpected outcome",
};

interface Outcome {
    operation: Operation;
    answer: types.ProjectResult;
    /** states of the containers before, by name */
    before: Map<string, string>;
}

export function Projects() {
    const { api, ask } = useShared();
    const { data, problem, refresh } = usePoll(
        (signal) => api.get("/projects", types.projects, signal),
        "projects",
    );
    const { busy, act } = useActing(refresh);
    const [outcomes, setOutcomes] = useState<ReadonlyMap<string, Outcome>>(new Map());

    const run = async (project: types.Project, operation: Operation) => {
        if (operation === "remove" || operation === "stop") {
            const names = project.containers.map((container) => container.name).join(", ");
            const yes = await ask({
                title: `${operation === "remove" ? "Remove" : "Stop"} the containers of ${project.name}?`,
                text: names || "It has no containers at present.",
                action: operation === "remove" ? "Remove containers" : "Stop containers",
                danger: true,
            });
            if (!yes) {
                return;
            }
        }
        const before = new Map(project.containers.map((container) => [container.name, container.state]));
        await act(project.file, "", async () => {
            const answer = await api.send(
                `/projects/${segment(project.file)}/${operation}`,
                types.projectResult,
                {},
            );
            setOutcomes((others) => new Map([...others, [project.file, { operation, answer, before }]]));
        });
    };

    return (
        <>
            <div class="head">
                <h1 tabIndex={-1}>Projects</h1>
                <a class="button" href={addressOf.file("+new")}>
                    New compose file
                </a>
            </div>
            <Stale problem={problem} hasData={data !== null} />
            {data === null && !problem ? <Loading what="the projects" /> : null}
            {data?.projects.length === 0 ? <p class="empty">There are no compose files.</p> : null}
            {data?.projects.map((project) => {
                const outcome = outcomes.get(project.file);
                const isBusy = busy.has(project.file);
                return (
                    <section key={project.file} class="card project" aria-label={`Project ${project.name}`}>
                        <h2>
                            {project.name}
                            <State
                                word={project.state}
                                say={project.state === "none" ? "no containers" : project.state}
                            />
                            <span class="aside">
                                <a href={addressOf.file(project.file)}>{project.file}</a>
                            </span>
                        </h2>
                        {project.containers.length > 0 ? (
                            <ul class="members" aria-label="Containers">
                                {project.containers.map((container) => (
                                    <li key={container.name}>
                                        <a href={addressOf.container(container.name)}>{container.name}</a>{" "}
                                        <State word={container.state} />
                                    </li>
                                ))}
                            </ul>
                        ) : null}
                        <div class="buttons">
                            {operations.map((operation) => (
                                <Act
                                    key={operation}
                                    off={isBusy}
                                    class={operation === "remove" ? "danger" : ""}
                                    aria-label={`${titleOf(operation)} project ${project.name}`}
                                    onClick={() => run(project, operation)}
                                >
                                    {titleOf(operation)}
                                    {operation === "remove" || operation === "stop" ? " …" : ""}
                                </Act>
                            ))}
                            {project.containers.length > 0 ? (
                                <a
                                    class="button"
                                    href={addressOf.projectLog(project.name)}
                                    aria-label={`Log of project ${project.name}`}
                                >
                                    Log
                                </a>
                            ) : null}
                            <a
                                class="button"
                                href={addressOf.file(project.file)}
                                aria-label={`Edit ${project.file}`}
                            >
                                Edit
                            </a>
                        </div>
                        <div role="status">
                            {isBusy ? (
                                <p class="aside">The compose tool works …</p>
                            ) : outcome ? (
                                <Result outcome={outcome} />
                            ) : null}
                        </div>
                    </section>
                );
            })}
        </>
    );
}

const titleOf = (word: string) => word.charAt(0).toUpperCase() + word.slice(1);

function Result({ outcome: { operation, answer, before } }: { outcome: Outcome }) {
    const { code, ok, result } = answer;
    return (
        <div class={ok ? "result" : "result bad"}>
            <div>
                <State
                    word={ok ? "ok" : "error"}
                    say={`${titleOf(operation)}: code ${code}, ${meanings[code] ?? "unknown code"}`}
                />
            </div>
            {result?.Message ? <div>{result.Message}</div> : null}
            {result && result.Containers.length > 0 ? (
                <table>
                    <caption class="unseen">What changed</caption>
                    <thead>
                        <tr>
                            <th scope="col">Container</th>
                            <th scope="col">Before</th>
                            <th scope="col">After</th>
                        </tr>
                    </thead>
                    <tbody>
                        {result.Containers.map((container) => (
                            <tr key={container.Name}>
                                <th scope="row">{container.Name}</th>
                                <td>
                                    <State word={before.get(container.Name) ?? "none"} />
                                </td>
                                <td>
                                    <span aria-hidden="true">→ </span>
                                    <State word={container.State || "unknown"} />
                                </td>
                            </tr>
                        ))}
                    </tbody>
                </table>
            ) : null}
        </div>
    );
}
