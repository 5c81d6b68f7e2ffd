export function Settings(_: { service: unknown; signOut: () => void }) {
    return <h1 tabIndex={-1}>Settings</h1>;
}
