import type { ComponentChildren, JSX } from "preact";
import { useCallback, useState } from "preact/hooks";
import { words } from "../api/client";
import { useShared } from "../context";

/** What states and verdicts look like; each has a sign of its own, so that colour is not needed. */
const tones: Record<string, readonly [string, string]> = {
    running: ["good", "●"],
    ok: ["good", "✓"],
    live: ["good", "●"],
    starting: ["busy", "◐"],
    stopping: ["busy", "◐"],
    waiting: ["busy", "◷"],
    connecting: ["busy", "◐"],
    restarting: ["busy", "◐"],
    partly: ["warning", "◑"],
    paused: ["warning", "‖"],
    warning: ["warning", "▲"],
    created: ["quiet", "○"],
    stopped: ["quiet", "○"],
    exited: ["quiet", "○"],
    none: ["quiet", "–"],
    ended: ["quiet", "○"],
    information: ["quiet", "i"],
    unknown: ["quiet", "?"],
    failed: ["bad", "✕"],
    error: ["bad", "✕"],
    dead: ["bad", "✕"],
};

export function State({ word, say }: { word: string; say?: string }) {
    const [tone, sign] = tones[word] ?? ["quiet", "·"];
    return (
        <span class={`state ${tone}`}>
            <span class="sign" aria-hidden="true">
                {sign}
            </span>
            {say ?? word}
        </span>
    );
}

/** A button that changes something on the board; off for those who may only look. */
export function Act({
    children,
    off,
    ...rest
}: { children: ComponentChildren; off?: boolean } & Omit<
    JSX.ButtonHTMLAttributes<HTMLButtonElement>,
    "disabled"
>) {
    const { mayAct } = useShared();
    return (
        <button
            type="button"
            {...rest}
            disabled={!mayAct || off === true}
            {...(mayAct ? {} : { title: lookOnly, "aria-describedby": "look-only" })}
        >
            {children}
        </button>
    );
}

export const lookOnly = "Your token may look but not act.";

/** Says that what is shown is old, and why. */
export function Stale({ problem, hasData }: { problem: string; hasData: boolean }) {
    return problem ? (
        <p class="notice failed" role="alert">
            {hasData ? "Not up to date: " : ""}
            {problem}
        </p>
    ) : null;
}

export function Loading({ what }: { what: string }) {
    return <p class="empty">Loading {what} …</p>;
}

/** Runs one action at a time for each key, tells how it went, and asks for fresh data. */
export function useActing(refresh: () => void) {
    const { tell } = useShared();
    const [busy, setBusy] = useState<ReadonlySet<string>>(new Set());
    const act = useCallback(
        async (key: string, done: string, task: () => Promise<unknown>): Promise<boolean> => {
            setBusy((before) => new Set([...before, key]));
            try {
                await task();
                if (done) {
                    tell(done);
                }
                return true;
            } catch (error) {
                tell(`${key}: ${words(error)}`, "failed");
                return false;
            } finally {
                setBusy((before) => new Set([...before].filter((other) => other !== key)));
                refresh();
            }
        },
        [tell, refresh],
    );
    return { busy, act };
}

export interface Column<T> {
    head: string;
    /** a class for the cells of this column */
    kind?: "number" | "actions" | "main" | "wide" | "tick";
    cell: (item: T) => ComponentChildren;
}

interface TableProperties<T> {
    caption: string;
    columns: Column<T>[];
    items: T[];
    idOf: (item: T) => string;
    empty: ComponentChildren;
}

/** A table that becomes a list of cards on a narrow screen; the roles keep it a table there. */
export function Table<T>({ caption, columns, items, idOf, empty }: TableProperties<T>) {
    if (items.length === 0) {
        return <p class="empty">{empty}</p>;
    }
    return (
        <div class="table-room">
            <table role="table">
                <caption class="unseen">{caption}</caption>
                <thead role="rowgroup">
                    <tr role="row">
                        {columns.map((column) => (
                            <th key={column.head} scope="col" role="columnheader" class={column.kind ?? ""}>
                                {column.kind === "actions" || column.kind === "tick" ? (
                                    <span class="unseen">{column.head}</span>
                                ) : (
                                    column.head
                                )}
                            </th>
                        ))}
                    </tr>
                </thead>
                <tbody role="rowgroup">
                    {items.map((item) => (
                        <tr key={idOf(item)} role="row">
                            {columns.map((column) =>
                                column.kind === "main" ? (
                                    <th key={column.head} scope="row" role="rowheader" class="main">
                                        {column.cell(item)}
                                    </th>
                                ) : (
                                    <td
                                        key={column.head}
                                        role="cell"
                                        class={column.kind ?? ""}
                                        data-head={column.head}
                                    >
                                        <div class="cell">{column.cell(item)}</div>
                                    </td>
                                ),
                            )}
                        </tr>
                    ))}
                </tbody>
            </table>
        </div>
    );
}
