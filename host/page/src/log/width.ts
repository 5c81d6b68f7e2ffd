/** Ranges of code points that take no column: combining marks, joiners, variation selectors. */
const none: readonly (readonly [number, number])[] = [
    [0x0300, 0x036f],
    [0x0483, 0x0489],
    [0x0591, 0x05bd],
    [0x05bf, 0x05bf],
    [0x05c1, 0x05c2],
    [0x05c4, 0x05c5],
    [0x0610, 0x061a],
    [0x064b, 0x065f],
    [0x0670, 0x0670],
    [0x06d6, 0x06dc],
    [0x06df, 0x06e4],
    [0x06e7, 0x06e8],
    [0x06ea, 0x06ed],
    [0x0711, 0x0711],
    [0x0730, 0x074a],
    [0x07a6, 0x07b0],
    [0x0900, 0x0902],
    [0x093a, 0x093a],
    [0x093c, 0x093c],
    [0x0941, 0x0948],
    [0x094d, 0x094d],
    [0x0e31, 0x0e31],
    [0x0e34, 0x0e3a],
    [0x0e47, 0x0e4e],
    [0x1ab0, 0x1aff],
    [0x1dc0, 0x1dff],
    [0x200b, 0x200f],
    [0x2060, 0x2064],
    [0x20d0, 0x20f0],
    [0x3099, 0x309a],
    [0xfe00, 0xfe0f],
    [0xfe20, 0xfe2f],
    [0xfeff, 0xfeff],
    [0x1f3fb, 0x1f3ff],
    [0xe0000, 0xe0fff],
];

/** Ranges that take two columns: East Asian wide, and pictures. */
const double: readonly (readonly [number, number])[] = [
    [0x1100, 0x115f],
    [0x231a, 0x231b],
    [0x2329, 0x232a],
    [0x23e9, 0x23ec],
    [0x23f0, 0x23f0],
    [0x23f3, 0x23f3],
    [0x25fd, 0x25fe],
    [0x2614, 0x2615],
    [0x2648, 0x2653],
    [0x267f, 0x267f],
    [0x2693, 0x2693],
    [0x26a1, 0x26a1],
    [0x26aa, 0x26ab],
    [0x26bd, 0x26be],
    [0x26c4, 0x26c5],
    [0x26ce, 0x26ce],
    [0x26d4, 0x26d4],
    [0x26ea, 0x26ea],
    [0x26f2, 0x26f3],
    [0x26f5, 0x26f5],
    [0x26fa, 0x26fa],
    [0x26fd, 0x26fd],
    [0x2705, 0x2705],
    [0x270a, 0x270b],
    [0x2728, 0x2728],
    [0x274c, 0x274c],
    [0x274e, 0x274e],
    [0x2753, 0x2755],
    [0x2757, 0x2757],
    [0x2795, 0x2797],
    [0x27b0, 0x27b0],
    [0x27bf, 0x27bf],
    [0x2b1b, 0x2b1c],
    [0x2b50, 0x2b50],
    [0x2b55, 0x2b55],
    [0x2e80, 0x303e],
    [0x3041, 0x33ff],
    [0x3400, 0x4dbf],
    [0x4e00, 0x9fff],
    [0xa000, 0xa4cf],
    [0xa960, 0xa97f],
    [0xac00, 0xd7a3],
    [0xf900, 0xfaff],
    [0xfe30, 0xfe6f],
    [0xff00, 0xff60],
    [0xffe0, 0xffe6],
    [0x1f004, 0x1f004],
    [0x1f0cf, 0x1f0cf],
    [0x1f18e, 0x1f18e],
    [0x1f191, 0x1f19a],
    [0x1f200, 0x1f320],
    [0x1f32d, 0x1f335],
    [0x1f337, 0x1f37c],
    [0x1f37e, 0x1f393],
    [0x1f3a0, 0x1f3ca],
    [0x1f3cf, 0x1f3d3],
    [0x1f3e0, 0x1f3f0],
    [0x1f3f4, 0x1f3f4],
    [0x1f3f8, 0x1f43e],
    [0x1f440, 0x1f440],
    [0x1f442, 0x1f4fc],
    [0x1f4ff, 0x1f53d],
    [0x1f54b, 0x1f54e],
    [0x1f550, 0x1f567],
    [0x1f57a, 0x1f57a],
    [0x1f595, 0x1f596],
    [0x1f5a4, 0x1f5a4],
    [0x1f5fb, 0x1f64f],
    [0x1f680, 0x1f6c5],
    [0x1f6cc, 0x1f6cc],
    [0x1f6d0, 0x1f6d2],
    [0x1f6d5, 0x1f6d7],
    [0x1f6eb, 0x1f6ec],
    [0x1f6f4, 0x1f6fc],
    [0x1f7e0, 0x1f7eb],
    [0x1f90c, 0x1f9ff],
    [0x1fa70, 0x1faff],
    [0x20000, 0x3fffd],
];

function within(ranges: readonly (readonly [number, number])[], code: number): boolean {
    let low = 0;
    let high = ranges.length - 1;
    while (low <= high) {
        const middle = (low + high) >> 1;
        const [first, last] = ranges[middle] as readonly [number, number];
        if (code < first) high = middle - 1;
        else if (code > last) low = middle + 1;
        else return true;
    }
    return false;
}

/** Columns of one code point. */
export function columnsOf(code: number): 0 | 1 | 2 {
    if (code < 0x300) {
        return code < 0x20 || (code >= 0x7f && code < 0xa0) ? 0 : 1;
    }
    if (within(none, code)) {
        return 0;
    }
    return code >= 0x1100 && within(double, code) ? 2 : 1;
}

/** Whether a text has anything that does not take exactly one column per code unit. */
export const isUneven = (text: string) => /[\u0300-\uffff]/.test(text);

/** Columns of a text. */
export function textColumns(text: string): number {
    if (!isUneven(text)) {
        return text.length;
    }
    let columns = 0;
    for (const character of text) {
        columns += columnsOf(character.codePointAt(0) as number);
    }
    return columns;
}

/** Offsets in a text at which rows of at most `width` columns begin; the first is 0. */
export function rowStarts(text: string, width: number, uneven: boolean): number[] {
    const starts = [0];
    if (!uneven) {
        for (let offset = width; offset < text.length; offset += width) {
            starts.push(offset);
        }
        return starts;
    }
    let used = 0;
    let offset = 0;
    for (const character of text) {
        const columns = columnsOf(character.codePointAt(0) as number);
        if (used + columns > width && used > 0) {
            starts.push(offset);
            used = 0;
        }
        used += columns;
        offset += character.length;
    }
    return starts;
}

/** How many rows a text takes. */
export function rowCount(text: string, width: number, uneven: boolean): number {
    return uneven ? rowStarts(text, width, true).length : Math.max(1, Math.ceil(text.length / width));
}

/** The part of a text between two columns. Without wrapping, what is scrolled out at the left is cut off. */
export function columnRange(text: string, from: number, width: number, uneven: boolean): [number, number] {
    if (!uneven) {
        return [Math.min(from, text.length), Math.min(from + width, text.length)];
    }
    let column = 0;
    let offset = 0;
    let start = -1;
    for (const character of text) {
        const columns = columnsOf(character.codePointAt(0) as number);
        if (start < 0 && column >= from) {
            start = offset;
        }
        if (start >= 0 && column + columns > from + width) {
            return [start, offset];
        }
        column += columns;
        offset += character.length;
    }
    return start < 0 ? [text.length, text.length] : [start, text.length];
}
