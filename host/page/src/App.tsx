import { Component, type ComponentChildren } from "preact";
import { useCallback, useEffect, useMemo, useRef, useState } from "preact/hooks";
import { Api, Problem, words } from "./api/client";
import { parseJson } from "./api/decode";
import * as types from "./api/types";
import { type Shared, SharedContext } from "./context";
import { Asking, type Question } from "./parts/Asking";
import { lookOnly, State } from "./parts/basics";
import { usePoll } from "./poll";
import { type Route, useRoute } from "./route";
import { SignIn } from "./SignIn";
import { Uploads } from "./uploads";
import { Board } from "./views/Board";
import { Containers } from "./views/Containers";
import { FileEditor } from "./views/FileEditor";
import { Images } from "./views/Images";
import { Inspect } from "./views/Inspect";
import { LogPage } from "./views/LogPage";
import { Messages } from "./views/Messages";
import { Plugins } from "./views/Plugins";
import { Projects } from "./views/Projects";
import { Settings } from "./views/Settings";

type Access =
    | { state: "asking" }
    | { state: "in"; session: types.Session }
    | { state: "out"; problem: string }
    | { state: "silent"; problem: string };

/** Takes a token out of the address, so that it neither stays in the bar nor in the history. */
function tokenOfAddress(): string {
    const match = /^#token=([^&]{1,600})/.exec(location.hash);
    if (!match) {
        return "";
    }
    history.replaceState(null, "", `${location.pathname}${location.search}`);
    try {
        return decodeURIComponent(match[1] as string).slice(0, 200);
    } catch {
        return "";
    }
}

export function App() {
    const api = useMemo(() => new Api(), []);
    const uploads = useMemo(() => new Uploads(), []);
    const [access, setAccess] = useState<Access>({ state: "asking" });

    const open = useCallback(
        async (token: string): Promise<void> => {
            const session = types.session(
                parseJson(await api.text("/session", { method: "POST", json: { token } })),
            );
            setAccess({ state: "in", session });
        },
        [api],
    );
    const look = useCallback(async () => {
        try {
            setAccess({ state: "in", session: await api.get("/session", types.session) });
        } catch (error) {
            if (error instanceof Problem && error.status === 401) {
                setAccess({ state: "out", problem: "" });
            } else {
                setAccess({ state: "silent", problem: words(error) });
            }
        }
    }, [api]);

    useEffect(() => {
        api.onUnknown = () =>
            setAccess((before) =>
                before.state === "in"
                    ? { state: "out", problem: "Your token is no longer valid. Sign in again." }
                    : before,
            );
        const token = tokenOfAddress();
        if (token) {
            open(token).catch((error) => setAccess({ state: "out", problem: words(error) }));
        } else {
            void look();
        }
    }, [api, open, look]);

    useEffect(() => {
        const warn = (event: BeforeUnloadEvent) => event.preventDefault();
        const follow = () => {
            window.removeEventListener("beforeunload", warn);
            if (uploads.areGoing) {
                window.addEventListener("beforeunload", warn);
            }
        };
        return uploads.watch(follow);
    }, [uploads]);

    useEffect(() => {
        if (access.state !== "silent") {
            return;
        }
        const timer = setTimeout(look, 2000);
        return () => clearTimeout(timer);
    }, [access, look]);

    useEffect(() => {
        const arrived = () => {
            const token = tokenOfAddress();
            if (token) {
                open(token).catch((error) => setAccess({ state: "out", problem: words(error) }));
            }
        };
        window.addEventListener("hashchange", arrived);
        return () => window.removeEventListener("hashchange", arrived);
    }, [open]);

    switch (access.state) {
        case "asking":
            return (
                <main class="gate">
                    <p role="status">Loading …</p>
                </main>
            );
        case "silent":
            return (
                <main class="gate">
                    <h1>Containers</h1>
                    <p class="notice failed" role="alert">
                        {access.problem}
                    </p>
                    <p>The page tries again every two seconds.</p>
                </main>
            );
        case "out":
            return <SignIn problem={access.problem} open={open} />;
        case "in":
            return <Inside api={api} session={access.session} uploads={uploads} signOut={look} />;
    }
}

const places = [
    ["board", "Board"],
    ["containers", "Containers"],
    ["projects", "Projects"],
    ["plugins", "Plugins"],
    ["images", "Images"],
    ["settings", "Settings"],
    ["messages", "Messages"],
] as const;

/** Which place of the navigation a view belongs to. */
const placeOf: Record<Route["view"], string> = {
    board: "board",
    containers: "containers",
    container: "containers",
    log: "containers",
    projects: "projects",
    file: "projects",
    plugins: "plugins",
    images: "images",
    settings: "settings",
    messages: "messages",
};

interface Notice {
    number: number;
    text: string;
    kind: "done" | "failed";
}

const noticeStays = 8000;
const mostNotices = 4;

function Inside({
    api,
    session,
    uploads,
    signOut,
}: {
    api: Api;
    session: types.Session;
    uploads: Uploads;
    signOut: () => void;
}) {
    const route = useRoute();
    const [notices, setNotices] = useState<Notice[]>([]);
    const [asking, setAsking] = useState<{ question: Question; answer: (yes: boolean) => void } | null>(null);
    const nextNotice = useRef(1);

    const dismiss = useCallback(
        (number: number) => setNotices((before) => before.filter((other) => other.number !== number)),
        [],
    );
    const shared = useMemo<Shared>(
        () => ({
            api,
            session,
            mayAct: session.right === "act",
            uploads,
            tell(text, kind = "done") {
                const number = nextNotice.current++;
                setNotices((before) => [...before, { number, text, kind }].slice(-mostNotices));
                if (kind === "done") {
                    setTimeout(() => dismiss(number), noticeStays);
                }
            },
            ask: (question) =>
                new Promise((resolve) => {
                    const before = document.activeElement;
                    setAsking({
                        question,
                        answer(yes) {
                            setAsking(null);
                            if (before instanceof HTMLElement) {
                                before.focus();
                            }
                            resolve(yes);
                        },
                    });
                }),
        }),
        [api, session, uploads, dismiss],
    );

    const service = usePoll((signal) => api.get("/service", types.service, signal), "service");

    const content = useRef<HTMLElement>(null);
    const key = JSON.stringify(route);
    const seen = useRef(key);
    useEffect(() => {
        const heading = content.current?.querySelector("h1");
        const name = heading?.textContent ?? "";
        document.querySelector("nav [aria-current]")?.scrollIntoView({ block: "nearest", inline: "nearest" });
        document.title = name ? `${name} – Containers` : "Containers";
        if (seen.current !== key) {
            // after a change of the view the keyboard and the screen reader go on at its heading
            seen.current = key;
            heading?.focus();
            window.scrollTo(0, 0);
        }
    }, [key]);

    return (
        <SharedContext.Provider value={shared}>
            {/* biome-ignore lint/a11y/useValidAnchor: it goes somewhere, though the fragment is taken by the views */}
            <a
                class="skip"
                href="#content"
                onClick={(event) => {
                    event.preventDefault();
                    content.current?.querySelector("h1")?.focus();
                }}
            >
                Skip to the content
            </a>
            <header class="top">
                <span class="brand">Containers</span>
                <nav aria-label="Views">
                    <ul>
                        {places.map(([place, name]) => (
                            <li key={place}>
                                <a
                                    href={`#/${place}`}
                                    aria-current={placeOf[route.view] === place ? "page" : undefined}
                                >
                                    {name}
                                </a>
                            </li>
                        ))}
                    </ul>
                </nav>
                <div class="standing">
                    {service.problem ? (
                        <State word="error" say="no answer" />
                    ) : service.data ? (
                        <span title="State of the container service">
                            <State word={service.data.state} />
                        </span>
                    ) : null}
                    <span class="who" title={`Signed in as ${session.name}`}>
                        {session.name}
                        {session.right === "look" ? " (look)" : ""}
                    </span>
                </div>
            </header>
            <main ref={content} id="content" class={route.view === "log" ? "fills" : ""}>
                {session.right === "look" ? (
                    <p id="look-only" class="notice">
                        {lookOnly} Everything that changes something is switched off.
                    </p>
                ) : null}
                <Guard key={key}>
                    <View route={route} service={service} signOut={signOut} />
                </Guard>
            </main>
            <div class="notices">
                <div role="status" aria-live="polite">
                    {notices
                        .filter((notice) => notice.kind === "done")
                        .map((notice) => (
                            <NoticeLine key={notice.number} notice={notice} dismiss={dismiss} />
                        ))}
                </div>
                <div role="alert">
                    {notices
                        .filter((notice) => notice.kind === "failed")
                        .map((notice) => (
                            <NoticeLine key={notice.number} notice={notice} dismiss={dismiss} />
                        ))}
                </div>
            </div>
            {asking ? <Asking question={asking.question} answer={asking.answer} /> : null}
        </SharedContext.Provider>
    );
}

function NoticeLine({ notice, dismiss }: { notice: Notice; dismiss: (number: number) => void }) {
    return (
        <div class={`notice ${notice.kind}`}>
            <span>{notice.text}</span>
            <button type="button" class="plain" aria-label="Dismiss" onClick={() => dismiss(notice.number)}>
                ×
            </button>
        </div>
    );
}

function View({
    route,
    service,
    signOut,
}: {
    route: Route;
    service: ReturnType<typeof usePoll<types.Service>>;
    signOut: () => void;
}) {
    switch (route.view) {
        case "board":
            return <Board service={service} />;
        case "containers":
            return <Containers />;
        case "container":
            return <Inspect name={route.name} />;
        case "log":
            return (
                <LogPage
                    containers={route.containers}
                    asked={route.asked}
                    project={route.project}
                    isSilent={service.problem !== ""}
                />
            );
        case "projects":
            return <Projects />;
        case "file":
            return <FileEditor name={route.name} />;
        case "plugins":
            return <Plugins />;
        case "images":
            return <Images />;
        case "settings":
            return <Settings service={service} signOut={signOut} />;
        case "messages":
            return <Messages isSilent={service.problem !== ""} />;
    }
}

/** A fault of a view leaves the rest of the page usable. */
class Guard extends Component<{ children: ComponentChildren }, { problem: string }> {
    override state = { problem: "" };

    static override getDerivedStateFromError(error: unknown) {
        return { problem: words(error) };
    }

    override render() {
        return this.state.problem ? (
            <>
                <h1 tabIndex={-1}>This view failed</h1>
                <p class="notice failed" role="alert">
                    {this.state.problem}
                </p>
                <button type="button" onClick={() => this.setState({ problem: "" })}>
                    Try again
                </button>
            </>
        ) : (
            this.props.children
        );
    }
}
