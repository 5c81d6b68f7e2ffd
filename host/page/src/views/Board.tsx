import { segment } from "../api/client";
import * as types from "../api/types";
import { useShared } from "../context";
import { age, moment } from "../format";
import { Act, Loading, Stale, State, useActing } from "../parts/basics";
import { type Polled, usePoll } from "../poll";

export function Board({ service }: { service: Polled<types.Service> }) {
    return (
        <>
            <h1 tabIndex={-1}>Board</h1>
            <div class="board">
                <ServicePart service={service} />
                <CoresPart />
                <ChecksPart />
            </div>
        </>
    );
}

const doing = {
    start: "Service started.",
    stop: "Service stopped.",
    enable: "Service enabled.",
    disable: "Service disabled.",
};
type Doing = keyof typeof doing;

function ServicePart({ service }: { service: Polled<types.Service> }) {
    const { api, ask } = useShared();
    const { busy, act } = useActing(service.refresh);
    const { data } = service;
    const run = (action: Doing) =>
        act("Service", doing[action], () => api.send(`/service/${segment(action)}`, types.service, {}));
    const stop = async () => {
        const yes = await ask({
            title: "Stop the container service?",
            text: "All containers are stopped too. Nothing starts the service again until somebody does.",
            action: "Stop the service",
            danger: true,
        });
        if (yes) {
            await run("stop");
        }
    };
    const isBusy = busy.size > 0;
    const isUp = data !== null && ["starting", "running"].includes(data.state);
    return (
        <section class="card" aria-labelledby="service-title">
            <h2 id="service-title">Service</h2>
            <Stale problem={service.problem} hasData={data !== null} />
            {data ? (
                <>
                    <dl class="facts">
                        <dt>State</dt>
                        <dd>
                            <span aria-live="polite">
                                <State word={data.state} />
                            </span>
                            {data.startedAt ? <span class="aside"> for {age(data.startedAt)}</span> : null}
                            {data.problem ? <div class="aside">{data.problem}</div> : null}
                        </dd>
                        <dt>At boot</dt>
                        <dd>{data.enabled ? "enabled" : "disabled"}</dd>
                        <dt>Podman</dt>
                        <dd>
                            {data.podman.answering ? (
                                <State word="ok" say={`answers, ${data.podman.version}`} />
                            ) : (
                                <>
                                    <State
                                        word={data.state === "stopped" ? "stopped" : "error"}
                                        say="does not answer"
                                    />
                                    {data.podman.problem && data.podman.problem !== data.problem ? (
                                        <div class="aside">{data.podman.problem}</div>
                                    ) : null}
                                </>
                            )}
                        </dd>
                        <dt>Restarts</dt>
                        <dd>
                            {data.restarts.policy}
                            {data.restarts.policy === "never"
                                ? ""
                                : `, ${data.restarts.inARow} of ${data.restarts.limit} in a row`}
                            {data.restarts.nextAt ? (
                                <div class="aside">next at {moment(data.restarts.nextAt)}</div>
                            ) : null}
                        </dd>
                        <dt>Daemon</dt>
                        <dd>{data.version}</dd>
                    </dl>
                    {data.restarts.history.length > 0 ? (
                        <details>
                            <summary>Last restarts ({data.restarts.history.length})</summary>
                            <ul class="history">
                                {[...data.restarts.history].reverse().map((restart) => (
                                    <li key={restart.time + restart.cause}>
                                        <time>{moment(restart.time)}</time> {restart.cause}
                                    </li>
                                ))}
                            </ul>
                        </details>
                    ) : null}
                </>
            ) : service.problem ? null : (
                <Loading what="the service" />
            )}
            <div class="buttons">
                <Act class="primary" off={isBusy || data === null || isUp} onClick={() => run("start")}>
                    Start
                </Act>
                <Act off={isBusy || data === null || data.state === "stopped"} onClick={stop}>
                    Stop …
                </Act>
                <Act off={isBusy || data === null || data.enabled} onClick={() => run("enable")}>
                    Enable
                </Act>
                <Act off={isBusy || data === null || !data.enabled} onClick={() => run("disable")}>
                    Disable
                </Act>
            </div>
        </section>
    );
}

const owners = {
    linux: ["L", "Linux"],
    containers: ["C", "containers"],
    hypervisor: ["R", "real-time (hypervisor)"],
    unused: ["–", "unused"],
} as const;

function CoresPart() {
    const { api } = useShared();
    const { data, problem } = usePoll((signal) => api.get("/cores", types.cores, signal), "cores");
    const present = data
        ? (Object.keys(owners) as (keyof typeof owners)[]).filter((owner) =>
              data.cores.some((core) => core.owner === owner),
          )
        : [];
    return (
        <section class="card" aria-labelledby="cores-title">
            <h2 id="cores-title">Cores</h2>
            <Stale problem={problem} hasData={data !== null} />
            {data ? (
                <>
                    <ol class="cores" aria-label="Who has which core">
                        {data.cores.slice(0, 1024).map((core) => (
                            <li
                                key={core.core}
                                class={`core ${core.owner}`}
                                title={`Core ${core.core}: ${owners[core.owner][1]}`}
                            >
                                <span class="core-number">{core.core}</span>
                                <span aria-hidden="true">{owners[core.owner][0]}</span>
                                <span class="unseen">{owners[core.owner][1]}</span>
                            </li>
                        ))}
                    </ol>
                    <ul class="legend" aria-hidden="true">
                        {present.map((owner) => (
                            <li key={owner}>
                                <span class={`core small ${owner}`}>{owners[owner][0]}</span>{" "}
                                {owners[owner][1]}
                            </li>
                        ))}
                    </ul>
                    <dl class="facts">
                        <dt>Containers get</dt>
                        <dd>
                            {data.configured} of at most {data.maximum}
                        </dd>
                        <dt>In effect</dt>
                        <dd>{data.effective || "no CPU set"}</dd>
                        <dt>Others there</dt>
                        <dd>
                            {data.strangers.length === 0 ? (
                                "none"
                            ) : (
                                <>
                                    <State word="warning" say={`${data.strangers.length} foreign`} />
                                    <ul class="plain">
                                        {data.strangers.slice(0, 50).map((stranger) => (
                                            <li key={stranger.pid}>
                                                <code>
                                                    {stranger.pid} {stranger.command.slice(0, 200)}
                                                </code>
                                            </li>
                                        ))}
                                    </ul>
                                </>
                            )}
                        </dd>
                    </dl>
                </>
            ) : problem ? null : (
                <Loading what="the cores" />
            )}
        </section>
    );
}

function ChecksPart() {
    const { api } = useShared();
    const { data, problem } = usePoll((signal) => api.get("/check", types.checks, signal), "check", 5000);
    return (
        <section class="card broad" aria-labelledby="checks-title">
            <h2 id="checks-title">
                Checks{" "}
                {data ? (
                    <State
                        word={data.verdict}
                        say={data.verdict === "ok" ? "all well" : `worst: ${data.verdict}`}
                    />
                ) : null}
            </h2>
            <Stale problem={problem} hasData={data !== null} />
            {data ? (
                <ul class="checks">
                    {data.checks.map((check) => (
                        <li key={check.id} class={check.verdict}>
                            <State word={check.verdict} />
                            <span class="check-title">{check.title}</span>
                            <span class="check-found">{check.found}</span>
                            {check.remedy ? (
                                <p class="remedy">
                                    <strong>To do:</strong> {check.remedy}
                                </p>
                            ) : null}
                        </li>
                    ))}
                </ul>
            ) : problem ? null : (
                <Loading what="the checks" />
            )}
        </section>
    );
}
