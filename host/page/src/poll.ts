import { useCallback, useEffect, useRef, useState } from "preact/hooks";
import { words } from "./api/client";

export const usualPace = 2000;

export interface Polled<T> {
    data: T | null;
    /** why the data is not up to date; empty when it is */
    problem: string;
    refresh: () => void;
}

/** Asks again and again while the page is visible. What was there stays when an answer fails. */
export function usePoll<T>(
    load: (signal: AbortSignal) => Promise<T>,
    key: string,
    pace = usualPace,
): Polled<T> {
    const [data, setData] = useState<T | null>(null);
    const [problem, setProblem] = useState("");
    const latest = useRef(load);
    latest.current = load;
    const kick = useRef<() => void>(() => {});

    // the key says when it is another question
    useEffect(() => {
        let timer: ReturnType<typeof setTimeout> | undefined;
        let stop: AbortController | null = null;
        let again = false;
        let over = false;

        const ask = async () => {
            clearTimeout(timer);
            if (over || document.hidden) {
                return;
            }
            if (stop) {
                again = true;
                return;
            }
            const mine = new AbortController();
            stop = mine;
            try {
                const answer = await latest.current(mine.signal);
                if (!mine.signal.aborted) {
                    setData(answer);
                    setProblem("");
                }
            } catch (error) {
                if (!mine.signal.aborted) {
                    setProblem(words(error));
                }
            }
            stop = stop === mine ? null : stop;
            if (!over && !mine.signal.aborted) {
                timer = setTimeout(ask, again ? 0 : pace);
                again = false;
            }
        };
        const look = () => {
            if (document.hidden) {
                clearTimeout(timer);
                stop?.abort();
                stop = null;
            } else {
                void ask();
            }
        };
        setData(null);
        setProblem("");
        kick.current = ask;
        document.addEventListener("visibilitychange", look);
        void ask();
        return () => {
            over = true;
            clearTimeout(timer);
            stop?.abort();
            document.removeEventListener("visibilitychange", look);
        };
    }, [key, pace]);

    const refresh = useCallback(() => kick.current(), []);
    return { data, problem, refresh };
}
