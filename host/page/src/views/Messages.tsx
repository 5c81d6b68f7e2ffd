export function Messages() {
    return <h1 tabIndex={-1}>Messages</h1>;
}
