import { usualSettings, type ViewSettings } from "./engine";
import type { PatternText } from "./pattern";

/** What the log view keeps from one visit to the next. */
export interface Remembered {
    view: ViewSettings;
    fontSize: number;
    tail: number;
}

export const usual: Remembered = { view: usualSettings, fontSize: 13, tail: 1000 };
export const tails = [100, 1000, 5000] as const;
export const fontSizes = [10, 11, 12, 13, 14, 16, 18, 20] as const;
const place = "log-view";

function choice<T>(value: unknown, choices: readonly T[], otherwise: T): T {
    return choices.includes(value as T) ? (value as T) : otherwise;
}

/** Switches of a pattern are kept; its text is not, as it would hide lines of the next log unasked. */
function pattern(value: unknown): PatternText {
    const given = (typeof value === "object" && value !== null ? value : {}) as Record<string, unknown>;
    return {
        text: "",
        regular: given.regular !== false,
        matchCase: given.matchCase === true,
        inverted: false,
    };
}

/** Reads settings; anything that is not one of the choices becomes the usual one. */
export function recall(source: string | null): Remembered {
    let value: unknown = null;
    try {
        value = JSON.parse(source ?? "null");
    } catch {
        // somebody else wrote there
    }
    const given = (typeof value === "object" && value !== null ? value : {}) as Record<string, unknown>;
    return {
        view: {
            stamps: choice(given.stamps, ["off", "time", "date"] as const, usual.view.stamps),
            wrap: given.wrap !== false,
            streams: choice(given.streams, ["all", "stdout", "stderr"] as const, usual.view.streams),
            filter: pattern(given.filter),
            search: pattern(given.search),
        },
        fontSize: choice(given.fontSize, fontSizes, usual.fontSize as (typeof fontSizes)[number]),
        tail: choice(given.tail, tails, usual.tail as (typeof tails)[number]),
    };
}

export function noted(remembered: Remembered): string {
    const { stamps, wrap, streams, filter, search } = remembered.view;
    const switches = ({ regular, matchCase }: PatternText) => ({ regular, matchCase });
    return JSON.stringify({
        stamps,
        wrap,
        streams,
        filter: switches(filter),
        search: switches(search),
        fontSize: remembered.fontSize,
        tail: remembered.tail,
    });
}

export function load(): Remembered {
    try {
        return recall(localStorage.getItem(place));
    } catch {
        return usual;
    }
}

export function store(remembered: Remembered): void {
    try {
        localStorage.setItem(place, noted(remembered));
    } catch {
        // a browser without storage forgets
    }
}
