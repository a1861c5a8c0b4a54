// Runs `task(item, index)` for every item, at most `parallel` at a time, and resolves to their
// results in the order of the items. Shared by login.js --batch and peer.js.
export default async function inParallel(items, parallel, task) {
  const results = new Array(items.length);
  let next = 0;
  const worker = async () => {
    while (next < items.length) {
      const index = next;
      next += 1;
      results[index] = await task(items[index], index);
    }
  };
  await Promise.all(Array.from({ length: Math.max(1, parallel) }, worker));
  return results;
}
