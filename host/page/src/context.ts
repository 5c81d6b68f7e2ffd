import { createContext } from "preact";
import { useContext } from "preact/hooks";
import type { Api } from "./api/client";
import type { Session } from "./api/types";
import type { Question } from "./parts/Asking";
import type { Uploads } from "./uploads";

export interface Shared {
    api: Api;
    session: Session;
    mayAct: boolean;
    uploads: Uploads;
    /** says how something went, to eyes and ears */
    tell: (text: string, kind?: "done" | "failed") => void;
    /** asks before something that cannot be taken back */
    ask: (question: Question) => Promise<boolean>;
}

export const SharedContext = createContext<Shared | null>(null);

export function useShared(): Shared {
    const shared = useContext(SharedContext);
    if (!shared) {
        throw new Error("outside of the application");
    }
    return shared;
}
