/** Bytes for people, in binary units. */
export function bytes(count: number): string {
    if (!Number.isFinite(count) || count < 0) {
        return "?";
    }
    const units = ["B", "KiB", "MiB", "GiB", "TiB"];
    let unit = 0;
    let value = count;
    while (value >= 1023.95 && unit < units.length - 1) {
        value /= 1024;
        unit++;
    }
    return unit === 0 ? `${count} B` : `${value < 10 ? value.toFixed(1) : Math.round(value)} ${units[unit]}`;
}

/** A count with its word: "1 line", "12 345 lines". */
export function counted(count: number, one: string, many = `${one}s`): string {
    return `${grouped(count)} ${count === 1 ? one : many}`;
}

/** Digits in groups of three, with a narrow space. */
export function grouped(count: number): string {
    return String(count).replace(/\B(?=(\d{3})+(?!\d))/g, "\u202f");
}

const two = (value: number) => String(value).padStart(2, "0");

/** Date and time of the browser's zone, or a dash. */
export function moment(iso: string | null): string {
    const time = iso === null ? Number.NaN : Date.parse(iso);
    return Number.isNaN(time) ? "–" : `${day(time)} ${clock(time)}`;
}

export function day(time: number): string {
    const date = new Date(time);
    return `${date.getFullYear()}-${two(date.getMonth() + 1)}-${two(date.getDate())}`;
}

export function clock(time: number, withMilliseconds = false): string {
    const date = new Date(time);
    const seconds = `${two(date.getHours())}:${two(date.getMinutes())}:${two(date.getSeconds())}`;
    return withMilliseconds ? `${seconds}.${String(date.getMilliseconds()).padStart(3, "0")}` : seconds;
}

/** How long ago, roughly: "3 min". */
export function duration(milliseconds: number): string {
    const seconds = Math.max(0, Math.round(milliseconds / 1000));
    if (seconds < 60) {
        return `${seconds} s`;
    }
    const minutes = Math.floor(seconds / 60);
    if (minutes < 60) {
        return `${minutes} min`;
    }
    const hours = Math.floor(minutes / 60);
    if (hours < 48) {
        return `${hours} h ${minutes % 60} min`;
    }
    return `${Math.floor(hours / 24)} days`;
}

export function age(iso: string | null, now = Date.now()): string {
    const time = iso === null ? Number.NaN : Date.parse(iso);
    return Number.isNaN(time) ? "–" : duration(now - time);
}

/** The start of an id, as Podman shows it. */
export const shortId = (id: string) => id.replace(/^sha256:/, "").slice(0, 12);

/** A file name that says what is in it: "clock_2026-11-21T19-04-05.log". */
export function downloadName(what: string, time: number, ending = "log"): string {
    const date = new Date(time);
    const name = what.replace(/[^A-Za-z0-9._-]+/g, "-").replace(/^[.-]+/, "") || "log";
    const stamp = `${day(time)}T${two(date.getHours())}-${two(date.getMinutes())}-${two(date.getSeconds())}`;
    return `${name.slice(0, 100)}_${stamp}.${ending}`;
}
