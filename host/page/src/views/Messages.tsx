import { useEffect, useRef, useState } from "preact/hooks";
import * as types from "../api/types";
import { useShared } from "../context";
import { counted, moment } from "../format";
import { type FeedState, MessageFeed } from "../messages";
import { State } from "../parts/basics";

const severities: Record<number, readonly [string, string]> = {
    1: ["information", "information"],
    2: ["warning", "warning"],
    3: ["error", "error"],
};
const mostShown = 500;

interface Properties {
    /** the daemon does not answer at present */
    isSilent: boolean;
}

export function Messages({ isSilent }: Properties) {
    const { api } = useShared();
    const [list, setList] = useState<readonly types.Message[]>([]);
    const [state, setState] = useState<FeedState>("connecting");
    const [problem, setProblem] = useState("");
    const [least, setLeast] = useState(1);
    const [wanted, setWanted] = useState("");
    const feed = useRef<MessageFeed | null>(null);

    useEffect(() => {
        const base = new URL(api.base, location.href).href.replace(/^http/, "ws");
        const mine = new MessageFeed(
            {
                socket: (path) => new WebSocket(base + path) as never,
                later: (task, milliseconds) => setTimeout(task, milliseconds),
                cancel: (timer) => clearTimeout(timer as number),
            },
            (messages, phase, reason) => {
                setList(messages);
                setState(phase);
                setProblem(reason);
            },
            () => void api.get("/session", types.session).catch(() => {}),
        );
        feed.current = mine;
        mine.open();
        return () => mine.close();
    }, [api]);

    useEffect(() => {
        if (isSilent) {
            feed.current?.doubt();
        } else {
            feed.current?.hurry();
        }
    }, [isSilent]);

    const words = wanted.toLowerCase();
    const found = list.filter(
        (message) =>
            message.severity >= least &&
            (!words || `${message.source} ${message.text}`.toLowerCase().includes(words)),
    );
    const shown = found.slice(-mostShown).reverse();
    return (
        <>
            <div class="head">
                <h1 tabIndex={-1}>Messages</h1>
                <span role="status">
                    <State word={state} say={state === "waiting" ? "disconnected, trying again" : state} />{" "}
                    <span class="aside">{problem}</span>
                </span>
                <div class="filters">
                    <label>
                        Show{" "}
                        <select
                            value={least}
                            onChange={(event) => setLeast(Number(event.currentTarget.value))}
                        >
                            <option value={1}>everything</option>
                            <option value={2}>warnings and errors</option>
                            <option value={3}>errors</option>
                        </select>
                    </label>
                    <label>
                        with{" "}
                        <input
                            type="search"
                            value={wanted}
                            maxLength={200}
                            placeholder="text"
                            onInput={(event) => setWanted(event.currentTarget.value)}
                        />
                    </label>
                </div>
            </div>
            {shown.length === 0 ? (
                <p class="empty">
                    {list.length > 0 ? "No message fits." : state === "live" ? "There are no messages." : ""}
                </p>
            ) : (
                <>
                    <section
                        class="table-room messages"
                        // biome-ignore lint/a11y/noNoninteractiveTabindex: it scrolls, and the keyboard has to get there
                        tabIndex={0}
                        aria-label="Messages, newest first"
                    >
                        <table>
                            <caption class="unseen">Messages, newest first</caption>
                            <thead>
                                <tr>
                                    <th scope="col">Time</th>
                                    <th scope="col">Severity</th>
                                    <th scope="col">Text</th>
                                    <th scope="col">From</th>
                                </tr>
                            </thead>
                            <tbody>
                                {shown.map((message, index) => {
                                    const [word, say] = severities[message.severity] ?? [
                                        "unknown",
                                        `severity ${message.severity}`,
                                    ];
                                    return (
                                        <tr key={`${message.time} ${found.length - index}`}>
                                            <td class="when">{moment(message.time)}</td>
                                            <td>
                                                <State word={word} say={say} />
                                            </td>
                                            <td class="text">{message.text}</td>
                                            <td>
                                                {message.source} {message.number}
                                            </td>
                                        </tr>
                                    );
                                })}
                            </tbody>
                        </table>
                    </section>
                    <p class="log-foot">
                        {found.length > shown.length ? `The newest ${shown.length} of ` : ""}
                        {counted(found.length, "message")}, newest first.
                    </p>
                </>
            )}
            <p class="unseen" role="log" aria-label="Newest message">
                {list[list.length - 1]?.text ?? ""}
            </p>
        </>
    );
}
