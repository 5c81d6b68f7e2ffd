/** What the user wants to see or find. */
export interface PatternText {
    text: string;
    /** a regular expression, or just the text */
    regular: boolean;
    matchCase: boolean;
    /** lines that do not match */
    inverted: boolean;
}

export const noPattern: PatternText = { text: "", regular: true, matchCase: false, inverted: false };

/** A pattern that can be asked; null when there is none. */
export interface Pattern {
    inverted: boolean;
    matches(text: string): boolean;
    /** where it matches, at most `limit` times; nothing for an inverted one */
    ranges(text: string, limit: number): [number, number][];
}

export type Compiled = { pattern: Pattern | null; error: string };

const longestPattern = 1000;

export function compile(source: PatternText): Compiled {
    if (!source.text) {
        return { pattern: null, error: "" };
    }
    if (source.text.length > longestPattern) {
        return { pattern: null, error: `The expression is longer than ${longestPattern} characters.` };
    }
    const text = source.regular ? source.text : source.text.replace(/[\\^$.*+?()[\]{}|]/g, "\\$&");
    let expression: RegExp;
    try {
        expression = new RegExp(text, source.matchCase ? "gu" : "giu");
    } catch (error) {
        // many expressions of other tools are only valid without the stricter Unicode mode
        try {
            expression = new RegExp(text, source.matchCase ? "g" : "gi");
        } catch {
            const reason =
                error instanceof Error ? error.message.replace(/^.*\/[a-z]*: /, "") : String(error);
            return { pattern: null, error: `Not a regular expression: ${reason}` };
        }
    }
    const single = new RegExp(expression.source, expression.flags.replace("g", ""));
    return {
        error: "",
        pattern: {
            inverted: source.inverted,
            matches: (line) => single.test(line) !== source.inverted,
            ranges(line, limit) {
                if (source.inverted) {
                    return [];
                }
                const found: [number, number][] = [];
                for (const match of line.matchAll(expression)) {
                    if (match[0].length > 0) {
                        found.push([match.index, match.index + match[0].length]);
                    }
                    if (found.length >= limit) {
                        break;
                    }
                }
                return found;
            },
        },
    };
}
