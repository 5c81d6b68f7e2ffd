import { useEffect, useState } from "preact/hooks";

export type Route =
    | { view: "board" }
    | { view: "containers" }
    | { view: "container"; name: string }
    | { view: "log"; containers: string[]; asked: number; project: string }
    | { view: "projects" }
    | { view: "file"; name: string }
    | { view: "plugins" }
    | { view: "images" }
    | { view: "settings" }
    | { view: "messages" };

function plain(part: string | undefined): string {
    try {
        return decodeURIComponent(part ?? "");
    } catch {
        return "";
    }
}

const containerName = /^[A-Za-z0-9][A-Za-z0-9_.-]{0,127}$/;
/** More logs than these are not shown together. */
export const mostLogs = 16;

/** What the fragment of the address asks for; the board when it asks for nothing known. */
export function routeOf(fragment: string): Route {
    const [path = "", query = ""] = fragment.replace(/^#\/?/, "").split("?");
    const [first, second] = path.split("/").map(plain);
    const parameters = new URLSearchParams(query);
    switch (first) {
        case "containers":
            return second && containerName.test(second)
                ? { view: "container", name: second }
                : { view: "containers" };
        case "log": {
            const containers = [...new Set(parameters.getAll("c"))].filter((name) =>
                containerName.test(name),
            );
            return {
                view: "log",
                containers: containers.slice(0, mostLogs),
                asked: containers.length,
                project: (parameters.get("project") ?? "").slice(0, 200),
            };
        }
        case "projects":
            return second ? { view: "file", name: second } : { view: "projects" };
        case "plugins":
        case "images":
        case "settings":
        case "messages":
            return { view: first };
        default:
            return { view: "board" };
    }
}

export const addressOf = {
    container: (name: string) => `#/containers/${encodeURIComponent(name)}`,
    log: (containers: string[]) =>
        `#/log?${containers.map((name) => `c=${encodeURIComponent(name)}`).join("&")}`,
    projectLog: (project: string) => `#/log?project=${encodeURIComponent(project)}`,
    file: (name: string) => `#/projects/${encodeURIComponent(name)}`,
};

export function useRoute(): Route {
    const [route, setRoute] = useState(() => routeOf(location.hash));
    useEffect(() => {
        const follow = () => setRoute(routeOf(location.hash));
        window.addEventListener("hashchange", follow);
        return () => window.removeEventListener("hashchange", follow);
    }, []);
    return route;
}
