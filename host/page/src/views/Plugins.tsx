export function Plugins() {
    return <h1 tabIndex={-1}>Plugins</h1>;
}
