import { segment } from "../api/client";
import { parseJson } from "../api/decode";
import { useShared } from "../context";
import { moment } from "../format";
import { Loading, Stale, State } from "../parts/basics";
import { usePoll } from "../poll";
import { addressOf } from "../route";

const longestText = 500_000;

/** A member of a member of Podman's answer, which is not part of the contract: nothing in it has to be there. */
function member(value: unknown, ...path: string[]): unknown {
    let current = value;
    for (const name of path) {
        if (typeof current !== "object" || current === null || !Object.hasOwn(current, name)) {
            return undefined;
        }
        current = (current as Record<string, unknown>)[name];
    }
    return current;
}

const said = (value: unknown): string =>
    typeof value === "string" || typeof value === "number" || typeof value === "boolean"
        ? String(value)
        : Array.isArray(value)
          ? value.map(said).join(" ")
          : "";

export function Inspect({ name }: { name: string }) {
    const { api } = useShared();
    const { data, problem } = usePoll(
        async (signal) => parseJson(await api.text(`/containers/${segment(name)}`, { signal })),
        `inspect ${name}`,
        5000,
    );
    const state = said(member(data, "State", "Status"));
    const facts: [string, string][] = [
        ["Image", said(member(data, "ImageName"))],
        ["Made", said(member(data, "Created")) && moment(said(member(data, "Created")))],
        ["Started", state === "running" ? moment(said(member(data, "State", "StartedAt"))) : ""],
        ["Process", state === "running" ? said(member(data, "State", "Pid")) : ""],
        ["Exit code", state === "exited" ? said(member(data, "State", "ExitCode")) : ""],
        ["Command", said(member(data, "Config", "Cmd"))],
        ["Restart policy", said(member(data, "HostConfig", "RestartPolicy", "Name"))],
        ["Cores", said(member(data, "HostConfig", "CpusetCpus"))],
    ];
    const text = data === null ? "" : JSON.stringify(data, null, 2);
    return (
        <>
            <div class="head">
                <h1 tabIndex={-1}>{name}</h1>
                <a class="button" href={addressOf.log([name])}>
                    Log
                </a>
                <a href="#/containers">All containers</a>
            </div>
            <Stale problem={problem} hasData={data !== null} />
            {data === null ? (
                problem ? null : (
                    <Loading what="the container" />
                )
            ) : (
                <>
                    <dl class="facts">
                        {state ? (
                            <>
                                <dt>State</dt>
                                <dd>
                                    <State word={state} />
                                </dd>
                            </>
                        ) : null}
                        {facts
                            .filter(([, value]) => value)
                            .map(([title, value]) => (
                                <div key={title} class="fact">
                                    <dt>{title}</dt>
                                    <dd>{value}</dd>
                                </div>
                            ))}
                    </dl>
                    <h2 id="source-title">What Podman knows</h2>
                    {/* biome-ignore lint/a11y/noNoninteractiveTabindex: it scrolls, and the keyboard has to get there */}
                    <section class="source" tabIndex={0} aria-labelledby="source-title">
                        <pre>
                            {text.length > longestText
                                ? `${text.slice(0, longestText)}\n… (too long to be shown)`
                                : text}
                        </pre>
                    </section>
                </>
            )}
        </>
    );
}
