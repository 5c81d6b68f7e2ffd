import { useState } from "preact/hooks";
import * as types from "../api/types";
import { useShared } from "../context";
import { Act, Loading, Stale, useActing } from "../parts/basics";
import type { Polled } from "../poll";

interface Properties {
    service: Polled<types.Service>;
    signOut: () => void;
}

const policies = {
    never: "The service is never started again by itself.",
    "on-failure":
        "The service is started again when Podman is lost while it runs. What somebody stopped stays stopped.",
    always: "The service is started again when Podman is lost while it runs, and when the start that comes with the daemon fails. What somebody stopped stays stopped.",
};

export function Settings({ service, signOut }: Properties) {
    const { api, session, tell } = useShared();
    const { busy, act } = useActing(service.refresh);
    const { data } = service;
    /** what was typed; null as long as it is what the board has */
    const [port, setPort] = useState<string | null>(null);
    const [cores, setCores] = useState<string | null>(null);

    const whole = (typed: string) => (/^\d{1,5}$/.test(typed.trim()) ? Number(typed) : Number.NaN);
    const portValue = data ? whole(port ?? String(data.settings.tcpPort)) : 0;
    const coresValue = data ? whole(cores ?? String(data.settings.cores)) : 0;
    const portWrong =
        Number.isNaN(portValue) || portValue > 65535
            ? "A number from 0 to 65535."
            : portValue === 80 || portValue === 111
              ? `The board itself needs port ${portValue}.`
              : "";
    const coresWrong =
        data && (Number.isNaN(coresValue) || coresValue > data.settings.maximumCores)
            ? `A number from 0 to ${data.settings.maximumCores}.`
            : "";
    const change: Record<string, number> = {};
    if (data && portValue !== data.settings.tcpPort) {
        change.tcpPort = portValue;
    }
    if (data && coresValue !== data.settings.cores) {
        change.cores = coresValue;
    }
    const isChanged = Object.keys(change).length > 0;

    const save = async (event: Event) => {
        event.preventDefault();
        if (!isChanged || portWrong || coresWrong) {
            return;
        }
        const saved = await act("Settings", "Saved; in effect after the next start of the service.", () =>
            api.send("/service/settings", types.service, { method: "PATCH", json: change }),
        );
        if (saved) {
            setPort(null);
            setCores(null);
        }
    };

    return (
        <>
            <h1 tabIndex={-1}>Settings</h1>
            <div class="board">
                <section class="card" aria-labelledby="settings-title">
                    <h2 id="settings-title">Service</h2>
                    <Stale problem={service.problem} hasData={data !== null} />
                    {data ? (
                        <form class="form" onSubmit={save}>
                            <div class="field">
                                <label for="tcp-port">TCP port of Podman</label>
                                <input
                                    id="tcp-port"
                                    type="text"
                                    inputMode="numeric"
                                    size={8}
                                    value={port ?? String(data.settings.tcpPort)}
                                    aria-invalid={portWrong !== ""}
                                    aria-describedby="tcp-port-help"
                                    onInput={(event) => setPort(event.currentTarget.value)}
                                />
                                <span id="tcp-port-help" class={portWrong ? "wrong" : "help"}>
                                    {portWrong || "0 for none. It needs certificates on the board."}
                                </span>
                            </div>
                            <div class="field">
                                <label for="cores">Cores for containers</label>
                                <input
                                    id="cores"
                                    type="text"
                                    inputMode="numeric"
                                    size={8}
                                    value={cores ?? String(data.settings.cores)}
                                    aria-invalid={coresWrong !== ""}
                                    aria-describedby="cores-help"
                                    onInput={(event) => setCores(event.currentTarget.value)}
                                />
                                <span id="cores-help" class={coresWrong ? "wrong" : "help"}>
                                    {coresWrong || `At most ${data.settings.maximumCores}.`}
                                </span>
                            </div>
                            <p class="help">Settings are in effect after the next start of the service.</p>
                            <div class="buttons">
                                <Act
                                    type="submit"
                                    class="primary"
                                    off={!isChanged || portWrong !== "" || coresWrong !== "" || busy.size > 0}
                                >
                                    Save
                                </Act>
                            </div>
                        </form>
                    ) : service.problem ? null : (
                        <Loading what="the settings" />
                    )}
                </section>
                <section class="card" aria-labelledby="policy-title">
                    <h2 id="policy-title">Restarts</h2>
                    {data ? (
                        <dl class="facts">
                            <dt>Policy</dt>
                            <dd>
                                {data.restarts.policy}
                                <div class="aside">{policies[data.restarts.policy]}</div>
                            </dd>
                            <dt>Limit</dt>
                            <dd>{data.restarts.limit} in a row, then the daemon gives up</dd>
                            <dt>In a row now</dt>
                            <dd>{data.restarts.inARow}</dd>
                        </dl>
                    ) : null}
                    <p class="help">The policy stands in the daemon's configuration on the board.</p>
                </section>
                <section class="card" aria-labelledby="access-title">
                    <h2 id="access-title">Access</h2>
                    <dl class="facts">
                        <dt>Signed in as</dt>
                        <dd>{session.name}</dd>
                        <dt>Right</dt>
                        <dd>
                            {session.right === "act" ? "act: everything" : "look: nothing can be changed"}
                        </dd>
                    </dl>
                    <div class="buttons">
                        <button
                            type="button"
                            onClick={async () => {
                                try {
                                    await api.act("/session", { method: "DELETE" });
                                } catch (error) {
                                    tell(error instanceof Error ? error.message : String(error), "failed");
                                }
                                signOut();
                            }}
                        >
                            Sign out
                        </button>
                    </div>
                </section>
            </div>
        </>
    );
}
