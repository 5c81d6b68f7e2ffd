import type { ComponentType } from "preact";
import { useEffect, useMemo, useState } from "preact/hooks";
import { words } from "../api/client";
import * as types from "../api/types";
import { useShared } from "../context";
import type { Standing } from "../log/protocol";
import { Loading, Stale } from "../parts/basics";
import { usePoll } from "../poll";
import { addressOf, mostLogs } from "../route";

interface Properties {
    containers: string[];
    /** how many containers were asked for, also those beyond what is shown */
    asked: number;
    project: string;
    isSilent: boolean;
}

type View = ComponentType<{
    containers: string[];
    title: string;
    standings: Standing[];
    isSilent: boolean;
}>;

/** The log of some containers, or of all of a project. The terminal is fetched when it is needed. */
export function LogPage({ containers, asked, project, isSilent }: Properties) {
    const { api } = useShared();
    const [loaded, setLoaded] = useState<{ view: View } | null>(null);
    const [problem, setProblem] = useState("");
    const [members, setMembers] = useState<string[]>(containers);
    const polled = usePoll((signal) => api.get("/containers", types.containers, signal), "log containers");

    useEffect(() => {
        import("../log/LogView").then(
            (module) => setLoaded({ view: module.default }),
            (error) => setProblem(`The log view could not be loaded: ${words(error)}`),
        );
    }, []);

    const found = polled.data?.containers ?? [];
    const known = project
        ? found.filter((container) => container.project === project).map((container) => container.name)
        : containers;
    const missing = known.filter((name) => !members.includes(name));
    useEffect(() => {
        // containers that join the project join its log; those that leave it keep their lines
        if (missing.length > 0) {
            setMembers((before) => [...before, ...missing].slice(0, mostLogs));
        }
    }, [missing.join(" ")]);

    // a new list with every answer: a container may have been restarted between two of them
    const standings = useMemo(
        () =>
            (polled.data?.containers ?? []).map(({ name, state, startedAt }) => ({
                name,
                isRunning: state === "running",
                startedAt,
            })),
        [polled.data],
    );
    const count = Math.max(asked, new Set([...members, ...known]).size);
    const title = project || members.join(", ");
    return (
        <>
            <div class="head">
                <h1 tabIndex={-1}>Log of {title || "nothing"}</h1>
                {members.length === 1 && !project ? (
                    <a href={addressOf.container(members[0] as string)}>Inspect</a>
                ) : null}
                <a href={project ? "#/projects" : "#/containers"}>
                    {project ? "All projects" : "All containers"}
                </a>
            </div>
            {problem ? (
                <p class="notice failed" role="alert">
                    {problem}
                </p>
            ) : null}
            {count > mostLogs ? (
                <p class="notice" role="status">
                    Only the first {mostLogs} of {count} containers are shown.
                </p>
            ) : null}
            {members.length === 0 ? (
                <>
                    <Stale problem={polled.problem} hasData={false} />
                    {polled.data ? (
                        <p class="empty">
                            {project
                                ? `No container belongs to the project ${project}.`
                                : "No container was chosen."}
                        </p>
                    ) : null}
                </>
            ) : loaded ? (
                <loaded.view containers={members} title={title} standings={standings} isSilent={isSilent} />
            ) : problem ? null : (
                <Loading what="the log view" />
            )}
        </>
    );
}
