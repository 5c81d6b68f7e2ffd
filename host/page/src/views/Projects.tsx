export function Projects() {
    return <h1 tabIndex={-1}>Projects</h1>;
}
