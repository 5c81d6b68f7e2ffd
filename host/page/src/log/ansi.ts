/** Where a style begins in a text, as parameters of "Select Graphic Rendition"; "" is the default. */
export interface Styles {
    at: number[];
    sgr: string[];
}

export interface Clean {
    /** the text without any control character */
    plain: string;
    styles: Styles | null;
    /** the style at the end, for a text that goes on */
    style: string;
}

/** Control characters, and the marks that change the direction of what follows. */
const suspicious = /[\x00-\x1f\x7f-\x9f\u2028-\u202e\u2066-\u2069]/;
const tabWidth = 8;

interface Rendition {
    bold: boolean;
    dim: boolean;
    italic: boolean;
    underline: boolean;
    inverse: boolean;
    strike: boolean;
    foreground: string;
    background: string;
}

const plainRendition = (): Rendition => ({
    bold: false,
    dim: false,
    italic: false,
    underline: false,
    inverse: false,
    strike: false,
    foreground: "",
    background: "",
});

function sgrOf(state: Rendition): string {
    const parts: string[] = [];
    if (state.bold) parts.push("1");
    if (state.dim) parts.push("2");
    if (state.italic) parts.push("3");
    if (state.underline) parts.push("4");
    if (state.inverse) parts.push("7");
    if (state.strike) parts.push("9");
    if (state.foreground) parts.push(state.foreground);
    if (state.background) parts.push(state.background);
    return parts.join(";");
}

/** Reads `5;N` or `2;R;G;B` behind 38 or 48; gives the colour and how many parameters it took. */
function extended(selector: number, parameters: number[], index: number): [string, number] {
    const byte = (value: number | undefined) =>
        value !== undefined && value >= 0 && value <= 255 ? value : -1;
    if (parameters[index] === 5) {
        const colour = byte(parameters[index + 1]);
        return [colour < 0 ? "" : `${selector};5;${colour}`, 2];
    }
    if (parameters[index] === 2) {
        const [red, green, blue] = [1, 2, 3].map((offset) => byte(parameters[index + offset]));
        const valid =
            red !== undefined && green !== undefined && blue !== undefined && Math.min(red, green, blue) >= 0;
        return [valid ? `${selector};2;${red};${green};${blue}` : "", 4];
    }
    return ["", 1];
}

function apply(state: Rendition, parameters: number[]): void {
    for (let index = 0; index < parameters.length; index++) {
        const code = parameters[index] ?? 0;
        if (code === 0) Object.assign(state, plainRendition());
        else if (code === 1) state.bold = true;
        else if (code === 2) state.dim = true;
        else if (code === 3) state.italic = true;
        else if (code === 4 || code === 21) state.underline = true;
        else if (code === 7) state.inverse = true;
        else if (code === 9) state.strike = true;
        else if (code === 22) state.bold = state.dim = false;
        else if (code === 23) state.italic = false;
        else if (code === 24) state.underline = false;
        else if (code === 27) state.inverse = false;
        else if (code === 29) state.strike = false;
        else if ((code >= 30 && code <= 37) || (code >= 90 && code <= 97)) state.foreground = String(code);
        else if ((code >= 40 && code <= 47) || (code >= 100 && code <= 107)) state.background = String(code);
        else if (code === 39) state.foreground = "";
        else if (code === 49) state.background = "";
        else if (code === 38 || code === 48 || code === 58) {
            const [colour, taken] = extended(code, parameters, index + 1);
            index += taken;
            if (code === 38 && colour) state.foreground = colour;
            if (code === 48 && colour) state.background = colour;
        }
        // 5, 6 and 8 blink or hide; a log does neither
    }
}

/** The parameters of a sequence; colons divide like semicolons, with the colour space of `38:2::R:G:B` left out. */
function parametersOf(source: string): number[] {
    return source
        .replace(/([34]8:2):\d*:(\d+:\d+:\d+)/g, "$1:$2")
        .replace(/(^|;)4:(\d)/g, (_, before, kind) => `${before}${kind === "0" ? 24 : 4}`)
        .split(/[;:]/)
        .map((part) => (part === "" ? 0 : Number(part)));
}

function stateOf(sgr: string): Rendition {
    const state = plainRendition();
    if (sgr) {
        apply(state, parametersOf(sgr));
    }
    return state;
}

/** Sticky patterns for what may follow an introducer. */
const controlSequence = /([<-?]?)([0-9:;]*)([ -/]*)([@-~])?/y;
const stringEnd = /\x07|\x1b\\|\x9c/g;
const escapeSequence = /[ -/]*[0-~]?/y;

/**
 * Takes what a container wrote and leaves text and colours. Nothing that moves the cursor, sets titles, makes links,
 * rings or hides comes through.
 *
 * @param style the style in which the text begins: "", or the end of the part before it
 */
export function clean(source: string, style = ""): Clean {
    if (!suspicious.test(source)) {
        return { plain: source, styles: style ? { at: [0], sgr: [style] } : null, style };
    }
    const state = stateOf(style);
    const styles: Styles = { at: [], sgr: [] };
    let current = "";
    let plain = "";
    let index = 0;
    const note = () => {
        const wanted = sgrOf(state);
        if (wanted !== current) {
            if (styles.at[styles.at.length - 1] === plain.length) {
                styles.sgr[styles.sgr.length - 1] = wanted;
            } else {
                styles.at.push(plain.length);
                styles.sgr.push(wanted);
            }
            current = wanted;
        }
    };
    note();

    const controlAt = (from: number) => {
        controlSequence.lastIndex = from;
        const match = controlSequence.exec(source);
        if (match) {
            index = controlSequence.lastIndex;
            const [, mark, parameters = "", between, final] = match;
            if (final === "m" && !mark && !between && parameters.length <= 256) {
                apply(state, parametersOf(parameters));
                note();
            }
        }
    };
    let nextEnd = -1;
    const stringAt = (from: number) => {
        if (nextEnd < from) {
            stringEnd.lastIndex = from;
            nextEnd = stringEnd.exec(source) ? stringEnd.lastIndex : Number.POSITIVE_INFINITY;
        }
        // one without an end is no reason to hide the rest of the line
        index = nextEnd === Number.POSITIVE_INFINITY ? from : nextEnd;
    };

    while (index < source.length) {
        const start = index;
        let code = source.charCodeAt(index);
        while (!(code < 0x20 || (code >= 0x7f && code <= 0x9f) || (code >= 0x2028 && code <= 0x2069))) {
            index++;
            if (index >= source.length) {
                break;
            }
            code = source.charCodeAt(index);
        }
        plain += source.slice(start, index);
        if (index >= source.length) {
            break;
        }
        index++;
        if (code === 0x1b) {
            const next = source[index];
            if (next === "[") {
                controlAt(index + 1);
            } else if (next === "]" || next === "P" || next === "X" || next === "^" || next === "_") {
                stringAt(index + 1);
            } else {
                escapeSequence.lastIndex = index;
                escapeSequence.exec(source);
                index = Math.max(index, escapeSequence.lastIndex);
            }
        } else if (code === 0x9b) {
            controlAt(index);
        } else if (code === 0x90 || code === 0x98 || code === 0x9d || code === 0x9e || code === 0x9f) {
            stringAt(index);
        } else if (code === 0x09) {
            plain += " ".repeat(tabWidth - (plain.length % tabWidth));
        } else if (code === 0x0d) {
            if (index < source.length && plain && !plain.endsWith(" ")) {
                plain += " ";
            }
        } else if (code === 0x2028 || code === 0x2029) {
            plain += " ";
        } else if (code > 0x202e && code < 0x2066) {
            plain += source[index - 1];
        }
    }
    if (styles.at.length > 0 && styles.at[styles.at.length - 1] === plain.length) {
        styles.at.pop();
        styles.sgr.pop();
    }
    return { plain, styles: styles.at.length > 0 ? styles : null, style: current };
}
