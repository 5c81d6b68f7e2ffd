/** Data from the network is not what the contract promises. */
export class Malformed extends Error {
    constructor(where: string, expected: string) {
        super(`The daemon's answer is not as expected: ${where} should be ${expected}.`);
        this.name = "Malformed";
    }
}

/** Checks a value and gives it back with its type, or throws Malformed. */
export type Decoder<T> = (value: unknown, where?: string) => T;

type Decoded<D> = D extends Decoder<infer T> ? T : never;

const longestText = 1024 * 1024;
const longestList = 100_000;

export const text: Decoder<string> = (value, where = "the answer") => {
    if (typeof value !== "string" || value.length > longestText) {
        throw new Malformed(where, "a text");
    }
    return value;
};

export const whole: Decoder<number> = (value, where = "the answer") => {
    if (typeof value !== "number" || !Number.isSafeInteger(value)) {
        throw new Malformed(where, "a whole number");
    }
    return value;
};

export const yesNo: Decoder<boolean> = (value, where = "the answer") => {
    if (typeof value !== "boolean") {
        throw new Malformed(where, "true or false");
    }
    return value;
};

export const orNull =
    <T>(decoder: Decoder<T>): Decoder<T | null> =>
    (value, where) =>
        value === null ? null : decoder(value, where);

export const orElse =
    <T>(decoder: Decoder<T>, otherwise: T): Decoder<T> =>
    (value, where) =>
        value === undefined || value === null ? otherwise : decoder(value, where);

export const oneOf =
    <T extends string>(...words: readonly T[]): Decoder<T> =>
    (value, where = "the answer") => {
        if (!words.includes(value as T)) {
            throw new Malformed(where, `one of ${words.join(", ")}`);
        }
        return value as T;
    };

export const list =
    <T>(decoder: Decoder<T>): Decoder<T[]> =>
    (value, where = "the answer") => {
        if (!Array.isArray(value) || value.length > longestList) {
            throw new Malformed(where, "a list");
        }
        return value.map((item, index) => decoder(item, `${where}[${index}]`));
    };

export const record =
    <S extends Record<string, Decoder<unknown>>>(shape: S): Decoder<{ [K in keyof S]: Decoded<S[K]> }> =>
    (value, where = "the answer") => {
        if (typeof value !== "object" || value === null || Array.isArray(value)) {
            throw new Malformed(where, "an object");
        }
        const source = value as Record<string, unknown>;
        const result: Record<string, unknown> = {};
        for (const [name, decoder] of Object.entries(shape)) {
            const member = Object.hasOwn(source, name) ? source[name] : undefined;
            result[name] = decoder(member, where === "the answer" ? name : `${where}.${name}`);
        }
        return result as { [K in keyof S]: Decoded<S[K]> };
    };

/** JSON text to a value; malformed text is Malformed. */
export function parseJson(source: string): unknown {
    try {
        return JSON.parse(source);
    } catch {
        throw new Malformed("the answer", "JSON");
    }
}
