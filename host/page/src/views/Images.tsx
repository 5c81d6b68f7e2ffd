export function Images() {
    return <h1 tabIndex={-1}>Images</h1>;
}
