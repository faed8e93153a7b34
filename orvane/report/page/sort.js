// Tables sort by a click on a heading. Without scripts they stay as they are.
for (const table of document.querySelectorAll("table.sortable")) {
  const heads = [...table.tHead.rows[0].cells];
  const key = (row, i) => row.cells[i].dataset.key ?? row.cells[i].textContent.trim();
  heads.forEach((head, i) => {
    const button = document.createElement("button");
    button.textContent = head.textContent;
    head.replaceChildren(button);
    button.addEventListener("click", () => {
      const down = head.getAttribute("aria-sort") === "ascending";
      heads.forEach(other => other.removeAttribute("aria-sort"));
      head.setAttribute("aria-sort", down ? "descending" : "ascending");
      const rows = [...table.tBodies[0].rows].sort((a, b) =>
        key(a, i).localeCompare(key(b, i), undefined, { numeric: true }) * (down ? -1 : 1));
      table.tBodies[0].append(...rows);
    });
  });
}
