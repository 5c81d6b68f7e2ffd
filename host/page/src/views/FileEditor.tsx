export function FileEditor({ name }: { name: string }) {
    return <h1 tabIndex={-1}>{name}</h1>;
}
