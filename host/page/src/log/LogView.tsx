import { useCallback, useEffect, useLayoutEffect, useMemo, useRef, useState } from "preact/hooks";
import { useShared } from "../context";
import { bytes, counted, downloadName, grouped } from "../format";
import { State } from "../parts/basics";
import { LogClient } from "./client";
import type { ConnectionState } from "./connection";
import type { Frame, ViewSettings } from "./engine";
import { usualBounds } from "./lines";
import { compile, type PatternText } from "./pattern";
import type { Standing } from "./protocol";
import { fontSizes, load, type Remembered, store, tails } from "./remembered";
import { LogTerminal } from "./terminal";

interface Properties {
    /** whose logs; more may join behind those that are there */
    containers: string[];
    /** what the log is called, also in file names */
    title: string;
    /** what is known of containers, these and others */
    standings: Standing[];
    /** the daemon does not answer at present */
    isSilent: boolean;
}

/** A browser's elements cannot be higher than some millions of pixels. */
const highest = 8_000_000;
const settle = 200;
const speakEvery = 1000;

interface Figures extends Omit<Frame, "rows" | "plain"> {
    states: ConnectionState[];
}

export default function LogView({ containers, title, standings, isSilent }: Properties) {
    const { api, tell } = useShared();
    const [remembered, setRemembered] = useState<Remembered>(load);
    const [figures, setFigures] = useState<Figures | null>(null);
    const [spoken, setSpoken] = useState("");
    const [problem, setProblem] = useState("");
    const [hasOptions, setHasOptions] = useState(false);
    const scroller = useRef<HTMLElement>(null);
    const sizer = useRef<HTMLDivElement>(null);
    const frameRoom = useRef<HTMLDivElement>(null);
    const room = useRef<HTMLDivElement>(null);
    const terminal = useRef<LogTerminal | null>(null);
    const client = useRef<LogClient | null>(null);
    const latest = useRef<Frame | null>(null);
    const placed = useRef({ top: 0, scale: 1 });
    const lastFigures = useRef(0);
    const speaking = useRef<ReturnType<typeof setTimeout>>();
    const pending = useRef<ReturnType<typeof setTimeout>>();
    const initial = useRef(remembered);
    const searchField = useRef<HTMLInputElement>(null);
    const key = containers.join(" ");

    const change = useCallback(
        (part: Partial<Omit<Remembered, "view">> & { view?: Partial<ViewSettings> }) => {
            setRemembered((before) => {
                const after = { ...before, ...part, view: { ...before.view, ...part.view } };
                store(after);
                return after;
            });
        },
        [],
    );

    const measure = useCallback(() => {
        const view = terminal.current;
        const area = scroller.current;
        if (!view || !area) {
            return;
        }
        const { width, height } = view.cell;
        const columns = Math.max(20, Math.floor((area.clientWidth - 4) / width));
        const rows = Math.max(3, Math.floor(area.clientHeight / height));
        view.resize(columns, rows);
        if (frameRoom.current) {
            frameRoom.current.style.width = `${area.clientWidth}px`;
            frameRoom.current.style.height = `${area.clientHeight}px`;
        }
        client.current?.send({ type: "window", columns, rows, left: Math.round(area.scrollLeft / width) });
    }, []);

    const show = useCallback((frame: Frame, states: ConnectionState[]) => {
        latest.current = frame;
        const view = terminal.current;
        const area = scroller.current;
        const size = sizer.current;
        if (view && area && size) {
            view.show(frame.rows);
            const { width, height } = view.cell;
            // one row is one row's height of scrolling, unless that became too high for an element
            const beyond = Math.max(0, frame.endRow - frame.firstRow - view.rows);
            const scale = Math.min(height, highest / Math.max(1, beyond));
            const top = Math.round((frame.topRow - frame.firstRow) * scale);
            placed.current = { top, scale };
            size.style.height = `${area.clientHeight + Math.ceil(beyond * scale)}px`;
            size.style.width =
                frame.widest > view.columns ? `${Math.ceil(frame.widest * width) + 8}px` : "100%";
            if (Math.abs(area.scrollTop - top) >= 1) {
                area.scrollTop = top;
                placed.current.top = area.scrollTop;
            }
        }
        const update = () => {
            const { rows: _rows, plain: _plain, ...rest } = frame;
            lastFigures.current = performance.now();
            setFigures({ ...rest, states });
        };
        clearTimeout(pending.current);
        if (performance.now() - lastFigures.current > settle) {
            update();
        } else {
            pending.current = setTimeout(update, settle);
        }
        speaking.current ??= setTimeout(() => {
            speaking.current = undefined;
            setSpoken(latest.current?.plain.join("\n") ?? "");
        }, speakEvery);
    }, []);

    // the log: its worker and its terminal live as long as the view; containers that join are told to the worker
    useLayoutEffect(() => {
        const place = room.current;
        const area = scroller.current;
        if (!place || !area) {
            return;
        }
        const view = new LogTerminal(place, initial.current.fontSize);
        terminal.current = view;
        const link = new LogClient(
            { base: new URL(api.base, location.href).href, containers, tail: initial.current.tail },
            initial.current.view,
            {
                frame: show,
                text(blob) {
                    save(blob, downloadName(`${title}-shown`, Date.now()));
                },
                unknown: () => api.onUnknown(),
                stuck() {
                    setProblem("The expression took too long and was taken away.");
                    change({
                        view: {
                            filter: { ...initial.current.view.filter, text: "" },
                            search: { ...initial.current.view.search, text: "" },
                        },
                    });
                },
            },
        );
        client.current = link;
        view.onSelection((exists) => {
            if (exists && latest.current?.following) {
                // what is marked must not run away
                link.send({ type: "hold" });
            }
        });
        measure();
        const watcher = new ResizeObserver(measure);
        watcher.observe(area);
        void document.fonts?.ready.then(measure);
        return () => {
            watcher.disconnect();
            clearTimeout(pending.current);
            clearTimeout(speaking.current);
            speaking.current = undefined;
            link.close();
            view.dispose();
            client.current = null;
            terminal.current = null;
        };
    }, []);

    useEffect(() => {
        initial.current = remembered;
        client.current?.send({ type: "settings", settings: remembered.view });
    }, [remembered]);

    useEffect(() => {
        if (terminal.current) {
            terminal.current.fontSize = remembered.fontSize;
            measure();
        }
    }, [remembered.fontSize, measure]);

    // the key stands for the containers
    useEffect(() => {
        client.current?.join(containers);
        client.current?.send({ type: "wake", containers: standings });
    }, [key, standings]);

    useEffect(() => {
        client.current?.send({ type: isSilent ? "doubt" : "hurry" });
    }, [isSilent]);

    const scrolled = () => {
        const area = scroller.current;
        const frame = latest.current;
        if (!area || !frame || !terminal.current) {
            return;
        }
        if (frame.widest > 0) {
            client.current?.send({
                type: "window",
                columns: terminal.current.columns,
                rows: terminal.current.rows,
                left: Math.round(area.scrollLeft / terminal.current.cell.width),
            });
        }
        if (Math.abs(area.scrollTop - placed.current.top) < 1) {
            return;
        }
        const atEnd = area.scrollTop >= area.scrollHeight - area.clientHeight - 1;
        const offset = Math.round(area.scrollTop / placed.current.scale);
        placed.current.top = area.scrollTop;
        terminal.current.clearSelection();
        client.current?.send({ type: "scroll", row: atEnd ? frame.endRow : frame.firstRow + offset });
    };

    const toEnd = () => client.current?.send({ type: "end" });
    const pause = (on: boolean) => client.current?.send({ type: "pause", on });
    const find = (direction: 1 | -1) => client.current?.send({ type: "find", direction });

    const onKey = (event: KeyboardEvent) => {
        const area = scroller.current;
        const frame = latest.current;
        if (!area || !frame || !terminal.current || event.altKey || event.metaKey) {
            return;
        }
        if (event.ctrlKey) {
            if (event.key === "c" && terminal.current.selection) {
                void navigator.clipboard?.writeText(terminal.current.selection);
                event.preventDefault();
            }
            return;
        }
        const page = Math.max(1, terminal.current.rows - 1);
        const steps: Record<string, number> = {
            ArrowUp: -1,
            ArrowDown: 1,
            PageUp: -page,
            PageDown: page,
            " ": page,
            k: -1,
            j: 1,
        };
        const step = steps[event.key];
        if (step !== undefined) {
            client.current?.send({ type: "scroll", row: frame.topRow + step });
        } else if (event.key === "Home" || event.key === "g") {
            client.current?.send({ type: "scroll", row: frame.firstRow });
        } else if (event.key === "End" || event.key === "G") {
            toEnd();
        } else if (event.key === "p") {
            pause(!frame.paused);
        } else if (event.key === "n" || event.key === "N") {
            find(event.key === "n" ? 1 : -1);
        } else if (event.key === "/") {
            searchField.current?.focus();
        } else {
            return;
        }
        event.preventDefault();
    };

    const download = async (name: string) => {
        try {
            // the daemon says beforehand when it cannot, instead of into the file
            await api.text(`/containers/${encodeURIComponent(name)}/logs?tail=0`);
            const link = document.createElement("a");
            link.href = `${api.base}/containers/${encodeURIComponent(name)}/logs?tail=all&timestamps=true`;
            link.download = downloadName(name, Date.now());
            link.click();
            tell(`Download of ${name}'s log began.`);
        } catch (error) {
            tell(`Log of ${name}: ${error instanceof Error ? error.message : error}`, "failed");
        }
    };

    const view = remembered.view;
    const following = figures?.following ?? true;
    const paused = figures?.paused ?? false;
    const fresh = figures?.fresh ?? 0;

    return (
        <div class="log">
            <ul class="connections" aria-label="Connections" aria-live="polite">
                {containers.map((name, index) => (
                    <li key={name}>
                        {containers.length > 1 ? <span class="name">{name}</span> : null}
                        <Connection state={figures?.states[index] ?? { phase: "connecting" }} />
                    </li>
                ))}
            </ul>
            <div class="log-tools" role="toolbar" aria-label="View">
                <div class="buttons">
                    <button
                        type="button"
                        aria-pressed={following}
                        onClick={() => (following ? client.current?.send({ type: "hold" }) : toEnd())}
                    >
                        Follow
                    </button>
                    <button type="button" aria-pressed={paused} onClick={() => pause(!paused)}>
                        {paused ? "Paused" : "Pause"}
                    </button>
                    <button
                        type="button"
                        aria-pressed={view.wrap}
                        onClick={() => change({ view: { wrap: !view.wrap } })}
                    >
                        Wrap
                    </button>
                </div>
                <button
                    type="button"
                    class="narrow-only"
                    aria-expanded={hasOptions}
                    aria-controls="log-options"
                    onClick={() => setHasOptions(!hasOptions)}
                >
                    Options
                </button>
                <div id="log-options" class={hasOptions ? "log-options open" : "log-options"}>
                    <label>
                        Time
                        <select
                            value={view.stamps}
                            onChange={(event) =>
                                change({
                                    view: { stamps: event.currentTarget.value as ViewSettings["stamps"] },
                                })
                            }
                        >
                            <option value="off">off</option>
                            <option value="time">time</option>
                            <option value="date">date and time</option>
                        </select>
                    </label>
                    <label>
                        Stream
                        <select
                            value={view.streams}
                            onChange={(event) =>
                                change({
                                    view: { streams: event.currentTarget.value as ViewSettings["streams"] },
                                })
                            }
                        >
                            <option value="all">both</option>
                            <option value="stdout">stdout</option>
                            <option value="stderr">stderr</option>
                        </select>
                    </label>
                    <label>
                        Size
                        <select
                            value={remembered.fontSize}
                            onChange={(event) => change({ fontSize: Number(event.currentTarget.value) })}
                        >
                            {fontSizes.map((size) => (
                                <option key={size} value={size}>
                                    {size}
                                </option>
                            ))}
                        </select>
                    </label>
                    <label title="In effect when the log is opened the next time">
                        Begin with
                        <select
                            value={remembered.tail}
                            onChange={(event) => change({ tail: Number(event.currentTarget.value) })}
                        >
                            {tails.map((tail) => (
                                <option key={tail} value={tail}>
                                    {tail} lines
                                </option>
                            ))}
                        </select>
                    </label>
                </div>
                <div class="buttons">
                    <button type="button" onClick={() => client.current?.send({ type: "clear" })}>
                        Clear
                    </button>
                    <details class="menu">
                        <summary class="button">Download</summary>
                        <div class="buttons">
                            {containers.map((name) => (
                                <button key={name} type="button" onClick={() => download(name)}>
                                    Whole log of {name}
                                </button>
                            ))}
                            <button type="button" onClick={() => client.current?.send({ type: "text" })}>
                                Lines shown here
                            </button>
                        </div>
                    </details>
                </div>
            </div>
            <div class="log-tools">
                <PatternField
                    label="Filter"
                    value={view.filter}
                    change={(filter) => change({ view: { filter } })}
                    say={
                        figures && view.filter.text
                            ? `${grouped(figures.shown)} of ${grouped(figures.lines)}`
                            : ""
                    }
                />
                <PatternField
                    label="Search"
                    value={view.search}
                    change={(search) => change({ view: { search } })}
                    field={searchField}
                    onEnter={find}
                    say={
                        figures && view.search.text
                            ? figures.hit > 0
                                ? `${grouped(figures.hit)} of ${grouped(figures.hits)}`
                                : counted(figures.hits, "line")
                            : ""
                    }
                >
                    <button type="button" aria-label="Previous match" onClick={() => find(-1)}>
                        ↑
                    </button>
                    <button type="button" aria-label="Next match" onClick={() => find(1)}>
                        ↓
                    </button>
                </PatternField>
            </div>
            {problem ? (
                <p class="notice failed" role="alert">
                    {problem}
                    <button type="button" class="plain" aria-label="Dismiss" onClick={() => setProblem("")}>
                        ×
                    </button>
                </p>
            ) : null}
            <div class="log-room">
                <section
                    ref={scroller}
                    class="log-scroller"
                    // biome-ignore lint/a11y/noNoninteractiveTabindex: it scrolls, and the keyboard has to get there
                    tabIndex={0}
                    aria-label={`Log of ${title}. Arrow keys scroll, End follows, p pauses, n finds the next match.`}
                    onScroll={scrolled}
                    onKeyDown={onKey}
                >
                    <div ref={sizer} class="log-sizer">
                        <div ref={frameRoom} class="log-window">
                            <div ref={room} class="log-terminal" aria-hidden="true" />
                            <pre class="unseen">{spoken}</pre>
                        </div>
                    </div>
                </section>
                {following && !paused ? null : (
                    <button type="button" class="to-end primary" onClick={toEnd}>
                        {fresh > 0 ? `${counted(fresh, "new line")} ↓` : "To the end ↓"}
                    </button>
                )}
                {figures && figures.shown === 0 ? (
                    <p class="log-empty">
                        {figures.lines > 0 ? "No line passes the filter." : "No lines yet."}
                    </p>
                ) : null}
            </div>
            <p class="log-foot">
                {figures ? (
                    <>
                        <span class="kept">
                            {counted(figures.lines, "line")}, {bytes(figures.bytes)}
                        </span>{" "}
                        kept of at most {grouped(usualBounds.lines)} lines, {bytes(usualBounds.bytes)}.{" "}
                        {figures.discarded > 0 ? `${counted(figures.discarded, "older line")} gone. ` : ""}
                    </>
                ) : null}
                <span class="legend-err">! marks stderr.</span>
            </p>
            <p class="unseen" role="status">
                {following
                    ? ""
                    : fresh > 0
                      ? `${counted(roughly(fresh), "new line")} below`
                      : paused
                        ? "Paused"
                        : ""}
            </p>
        </div>
    );
}

/** So that a screen reader is not told every single new line. */
function roughly(count: number): number {
    return count < 10 ? count : Number(String(count)[0]) * 10 ** (String(count).length - 1);
}

function save(blob: Blob, name: string): void {
    const link = document.createElement("a");
    link.href = URL.createObjectURL(blob);
    link.download = name;
    link.click();
    setTimeout(() => URL.revokeObjectURL(link.href), 60_000);
}

function Connection({ state }: { state: ConnectionState }) {
    const [now, setNow] = useState(Date.now);
    useEffect(() => {
        if (state.phase !== "waiting") {
            return;
        }
        const timer = setInterval(() => setNow(Date.now()), 1000);
        return () => clearInterval(timer);
    }, [state]);
    switch (state.phase) {
        case "live":
            return <State word="live" />;
        case "connecting":
            return <State word="connecting" say="connecting …" />;
        case "waiting":
            return (
                <>
                    <State
                        word="waiting"
                        say={`disconnected, again in ${Math.max(1, Math.ceil((state.until - now) / 1000))} s`}
                    />{" "}
                    <span class="aside">{state.reason}</span>
                </>
            );
        case "ended":
            return (
                <>
                    <State word="ended" say={state.code === "removed" ? "removed" : "not running"} />{" "}
                    <span class="aside">{state.reason}</span>
                </>
            );
        case "unknown":
            return <State word="error" say="signed out" />;
    }
}

interface PatternProperties {
    label: string;
    value: PatternText;
    change: (value: PatternText) => void;
    say: string;
    field?: { current: HTMLInputElement | null };
    onEnter?: (direction: 1 | -1) => void;
    children?: preact.ComponentChildren;
}

function PatternField({ label, value, change, say, field, onEnter, children }: PatternProperties) {
    const error = useMemo(() => compile(value).error, [value]);
    const id = `pattern-${label.toLowerCase()}`;
    const Switch = ({
        name,
        sign,
        title,
    }: {
        name: "regular" | "matchCase" | "inverted";
        sign: string;
        title: string;
    }) => (
        <button
            type="button"
            class="switch"
            aria-pressed={value[name]}
            aria-label={`${label}: ${title}`}
            title={title}
            onClick={() => change({ ...value, [name]: !value[name] })}
        >
            {sign}
        </button>
    );
    return (
        <div class="pattern">
            <label for={id}>{label}</label>
            <div class="pattern-field">
                <input
                    id={id}
                    ref={field ?? null}
                    type="text"
                    value={value.text}
                    maxLength={1000}
                    spellcheck={false}
                    autocomplete="off"
                    autocapitalize="off"
                    placeholder={value.regular ? "regular expression" : "text"}
                    aria-invalid={error !== ""}
                    aria-describedby={`${id}-say`}
                    onInput={(event) => change({ ...value, text: event.currentTarget.value })}
                    onKeyDown={(event) => {
                        if (event.key === "Enter" && onEnter) {
                            event.preventDefault();
                            onEnter(event.shiftKey ? -1 : 1);
                        } else if (event.key === "Escape" && value.text) {
                            event.preventDefault();
                            change({ ...value, text: "" });
                        }
                    }}
                />
                {Switch({ name: "regular", sign: ".*", title: "regular expression" })}
                {Switch({ name: "matchCase", sign: "Aa", title: "match case" })}
                {Switch({ name: "inverted", sign: "≠", title: "lines that do not match" })}
                {children}
            </div>
            <span id={`${id}-say`} class={error ? "wrong" : "aside"} role="status">
                {error || say}
            </span>
        </div>
    );
}
