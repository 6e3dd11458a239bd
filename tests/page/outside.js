// Returns where the parts of the page are that are not on the screen, or not within their tile.
const outside = [];
const check = (element, frame) => {
    const box = element.getBoundingClientRect();
    if (box.width === 0) return;
    const off = Math.max(frame.left - box.left, box.right - frame.right, frame.top - box.top,
                         box.bottom - frame.bottom);
    if (off > 1) outside.push(`${element.id || element.className} of ${element.parentElement.className}: ${off}`);
};
const screen = new DOMRect(0, 0, innerWidth, innerHeight);
const parts = 'header, #scan, #scan *, #shift dd, main, .tile, #list, footer, #line, nav *';
for (const element of document.querySelectorAll(parts)) check(element, screen);
const list = document.querySelector('#list');
for (const name of list.querySelectorAll('strong')) check(name, list.getBoundingClientRect());
for (const tile of document.querySelectorAll('.tile')) {
    for (const part of tile.children) check(part, tile.getBoundingClientRect());
    const verdict = tile.querySelector('.verdict');
    if (verdict && verdict.scrollWidth > verdict.clientWidth + 1) outside.push(`${tile.className}: verdict is cut`);
    const name = tile.querySelector('.name');
    if (name.clientHeight > 1.9 * parseFloat(getComputedStyle(name).fontSize)) outside.push('a name breaks');
}
if (document.documentElement.scrollWidth > innerWidth) outside.push('the page is too wide');
return outside;
