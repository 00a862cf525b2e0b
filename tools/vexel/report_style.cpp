// A page in one column that is read from the top: what the document is, what is wrong with it, what makes it
// big, every node. It takes the colours of the reader's system, and prints in light ones. On narrow screens
// each row of the table becomes two lines.

#include "report_style.h"

namespace Vexel::Tool {

const char* const kReportStyle = R"css(
:root{color-scheme:light dark;--page:#fbfaf8;--ink:#22252b;--soft:#666b74;--line:#e2dfd9;--card:#fff;--bar:#b9c9de;
--link:#2a5d9c;--good:#2e6b47;--note:#a87411;--bad:#a5322a;--badpage:#fbeae7;--tileink:#1f242c;--rim:#fbfaf8}
.c0{--tile:#a9c3e0}.c1{--tile:#a5cfba}.c2{--tile:#e6cd93}.c3{--tile:#e3b19e}
.c4{--tile:#c7b8dd}.c5{--tile:#9fcdd3}.c6{--tile:#cfd19c}.c7{--tile:#cbc9c4}
@media (prefers-color-scheme:dark){
:root{--page:#16181c;--ink:#e4e4e1;--soft:#9aa0aa;--line:#2f333a;--card:#1d2025;--bar:#3f5672;--link:#8fb6e6;--good:#7fc79b;--note:#d9a94a;
--bad:#f0958a;--badpage:#35211f;--tileink:#eceae6;--rim:#16181c}
.c0{--tile:#34557a}.c1{--tile:#2f614a}.c2{--tile:#6d5824}.c3{--tile:#7a4735}
.c4{--tile:#584879}.c5{--tile:#2b6068}.c6{--tile:#585b27}.c7{--tile:#4a4a49}
}
*{box-sizing:border-box}
html{-webkit-text-size-adjust:100%;scroll-padding-top:4rem}
body{margin:0;background:var(--page);color:var(--ink);font:16px/1.5 system-ui,-apple-system,"Segoe UI",Roboto,"Noto Sans",
"DejaVu Sans",sans-serif}
main{max-width:70rem;margin:0 auto;padding:3rem 1.5rem 4rem}
h1{font-size:clamp(1.5rem,1.1rem + 2vw,2.25rem);line-height:1.2;font-weight:650;letter-spacing:-.015em;margin:.2rem 0 .3rem;
overflow-wrap:anywhere}
h2{font-size:1.15rem;font-weight:650;margin:0}
p{margin:0}
small{font-size:inherit}
.kind{color:var(--soft);font-size:.85rem;letter-spacing:.06em;text-transform:uppercase}
.about{color:var(--soft);overflow-wrap:anywhere;max-width:60rem}
.about b{color:var(--ink);font-weight:550}
.facts{display:flex;flex-wrap:wrap;margin:1.75rem 0 0;background:var(--card);border:1px solid var(--line);border-radius:.5rem;
overflow:hidden}
.facts div{flex:1 0 auto;min-width:6.5rem;padding:.7rem 1rem .8rem;box-shadow:0 0 0 1px var(--line)}
.facts dt{color:var(--soft);font-size:.8rem}
.facts dd{margin:0;font-size:1.2rem;font-weight:600;font-variant-numeric:tabular-nums;white-space:nowrap}
.facts dd small{font-size:.8rem;font-weight:400;color:var(--soft)}
.state{margin-top:1rem;padding:.6rem 1rem;border:1px solid var(--line);border-left:.25rem solid var(--good);
border-radius:.3rem;background:var(--card);font-size:.95rem}
.state.bad{border-left-color:var(--bad);background:var(--badpage)}
.state.note{border-left-color:var(--note)}
.state ul{margin:.4rem 0 .2rem;padding-left:1.1rem}
.state li,.fault{overflow-wrap:anywhere}
section{margin-top:2.75rem}
.head{display:flex;flex-wrap:wrap;gap:.5rem 1rem;align-items:center;justify-content:space-between;margin-bottom:.8rem}
.seg{display:inline-flex;border:1px solid var(--line);border-radius:.4rem;overflow:hidden;background:var(--card)}
.seg label{position:relative;font-size:.85rem;padding:.25rem .8rem;color:var(--soft);cursor:pointer}
.seg label+label{border-left:1px solid var(--line)}
.seg input{position:absolute;opacity:0;inset:0;margin:0;cursor:pointer}
.seg label:has(:checked){background:var(--bar);color:var(--ink)}
.seg label:has(:focus-visible){outline:2px solid var(--link);outline-offset:-2px}
.map{position:relative;width:100%}
.map.wide{aspect-ratio:1000/520}
.map.tall{aspect-ratio:3/4;display:none}
#map:has(#by-packed:checked) .size,#map:not(:has(#by-packed:checked)) .packed{display:none}
.g,.l{position:absolute;container-type:size;overflow:hidden;border:1px solid var(--rim);border-radius:3px}
.l{background:var(--tile)}
.g{background:color-mix(in srgb,var(--tile) 45%,var(--page))}
.b{position:absolute;inset:22px 2px 2px}
.h,.t{display:block;overflow:hidden;white-space:nowrap;text-overflow:ellipsis;color:var(--tileink);text-decoration:none;
font-size:12px;line-height:16px}
.h{padding:3px 6px;height:22px;font-weight:600}
.t{position:absolute;inset:0;padding:4px 6px}
.l:has(a):hover{filter:brightness(.94)}
.h small,.t small{opacity:.75;font-weight:400;font-variant-numeric:tabular-nums}
.r .t{font-style:italic}
@container (max-width:43px) or (max-height:23px){.t{font-size:0}}
@container (min-height:42px) and (min-width:44px){.t bdi{display:block;overflow:hidden;text-overflow:ellipsis}}
@container (max-width:63px){.t small{display:none}}
@container (max-width:120px){.h small{display:none}}
@container (max-height:55px) or (max-width:59px){.h{display:none}.b{inset:1px}}
.empty{color:var(--soft)}
.tools{display:flex;flex-wrap:wrap;gap:.6rem;align-items:center;position:sticky;top:0;z-index:1;background:var(--page);
padding:.6rem 0}
.tools input[type=search]{flex:1 1 12rem;min-width:0;font:inherit;font-size:.95rem;padding:.35rem .7rem;color:inherit;
background:var(--card);border:1px solid var(--line);border-radius:.4rem}
.tools output{color:var(--soft);font-size:.85rem;font-variant-numeric:tabular-nums}
table{width:100%;border-collapse:collapse;font-size:.92rem}
th{font-weight:550;font-size:.82rem;text-align:left;border-bottom:1px solid var(--ink);padding:0;vertical-align:bottom}
th button{all:unset;cursor:pointer;display:block;width:100%;box-sizing:border-box;padding:.35rem .75rem;color:var(--soft);
white-space:nowrap}
th button:focus-visible{outline:2px solid var(--link)}
th:first-child button,td:first-child{padding-left:0}
th[aria-sort] button{color:var(--ink)}
th[aria-sort=ascending] button::after{content:" ↑"}
th[aria-sort=descending] button::after{content:" ↓"}
td{border-bottom:1px solid var(--line);padding:.35rem .75rem;vertical-align:top}
.n{text-align:right;white-space:nowrap;font-variant-numeric:tabular-nums}
th:last-child button,td:last-child{padding-right:0}
td.p{overflow-wrap:anywhere;min-width:0;width:99%}
td.w{padding-left:7.25rem;background:linear-gradient(var(--bar),var(--bar)) left .75rem center/calc(6rem*var(--w)) .6rem
no-repeat}
.d{color:var(--soft)}
.s td.p{font-weight:600}.s .d{font-weight:400}
.m{color:var(--soft);white-space:nowrap;font-variant-numeric:tabular-nums;text-align:right}
tr:target td{background-color:color-mix(in srgb,var(--bar) 45%,transparent)}
.fault{display:block;color:var(--bad);font-weight:400;font-size:.85rem}
tr[hidden]{display:none}
footer{margin-top:3rem;color:var(--soft);font-size:.82rem;overflow-wrap:anywhere}
@media (max-width:40rem){
main{padding:1.5rem 1rem 3rem}
.map.wide{display:none}.map.tall{display:block}
table,tbody{display:block}
thead tr{display:flex;flex-wrap:wrap;gap:.2rem .9rem;border-bottom:1px solid var(--ink)}
thead,th{display:block}
th{border:0}
th button,th:last-child button{padding:.35rem 0}
tbody tr{display:flex;flex-wrap:wrap;gap:0 1rem;padding:.45rem 0;border-bottom:1px solid var(--line)}
td,td:last-child{border:0;padding:0}
td.p{flex:1 1 100%;width:auto}
td.n,td.m{color:var(--soft);font-size:.85rem;text-align:left}
td.n:empty,td.m:empty{display:none}
td.w{background:none;padding:0}
td.k::after{content:" packed"}
}
@media print{
:root{--page:#fff;--ink:#000;--soft:#555;--line:#ccc;--card:#fff;--bar:#c9d4e2;--bad:#a5322a;--badpage:#fff;--good:#2e6b47;
--tileink:#000;--rim:#fff}
.c0{--tile:#c5d6e9}.c1{--tile:#c3dfd1}.c2{--tile:#f0dfb8}.c3{--tile:#efcfc2}
.c4{--tile:#dbd1ea}.c5{--tile:#c0dfe3}.c6{--tile:#e0e2bf}.c7{--tile:#dedcd8}
html{font-size:13px}
main{padding:0;max-width:none}
.tools,.seg{display:none}
.l,.g,td.w{print-color-adjust:exact;-webkit-print-color-adjust:exact}
tr,.map,.facts,.state{break-inside:avoid}
h2{break-after:avoid}
thead{display:table-header-group}
}
)css";

const char* const kReportScript = R"js(
(() => {
  const table = document.querySelector("table"), body = table.tBodies[0], rows = [...body.rows];
  const find = document.querySelector("#find"), shown = document.querySelector("#shown");
  const value = (row, column) => column ? row.cells[column].dataset.v : row.cells[0].firstChild.textContent;
  const order = new Intl.Collator(undefined, {numeric: true});
  function filter() {
    const wanted = find.value.toLowerCase(), kind = document.querySelector("[name=kind]:checked").value;
    let count = 0;
    for (const row of rows) {
      const fits = (!kind || row.classList.contains(kind)) && value(row, 0).toLowerCase().includes(wanted);
      row.hidden = !fits;
      count += fits;
    }
    shown.textContent = count === rows.length ? `${count} nodes` : `${count} of ${rows.length} nodes`;
  }
  function sort(head) {
    const column = head.cellIndex, isText = column === 0;
    const was = head.getAttribute("aria-sort");
    for (const other of table.tHead.rows[0].cells) other.removeAttribute("aria-sort");
    const up = was ? was === "descending" : isText;
    head.setAttribute("aria-sort", up ? "ascending" : "descending");
    const compare = head.dataset.kind === "number"
      ? (a, b) => (value(a, column) === "" ? -1 : +value(a, column)) - (value(b, column) === "" ? -1 : +value(b, column))
      : (a, b) => order.compare(value(a, column), value(b, column));
    const sorted = [...rows].sort((a, b) => up ? compare(a, b) : compare(b, a));
    body.append(...sorted);
  }
  for (const head of table.tHead.rows[0].cells) head.firstChild.addEventListener("click", () => sort(head));
  find.addEventListener("input", filter);
  for (const one of document.querySelectorAll("[name=kind]")) one.addEventListener("change", filter);
  // The exact figure, for who rests on a short one.
  body.addEventListener("pointerover", event => {
    const cell = event.target.closest("td[data-v]");
    if (cell && !cell.title) cell.title = cell.dataset.v + (cell.matches(".w,.k") ? " bytes" : "");
  });
  // A box of the picture leads to its row, also where the row is filtered out.
  addEventListener("hashchange", () => {
    const row = document.querySelector(":target");
    if (row && row.hidden) { find.value = ""; document.querySelector("[name=kind]").checked = true; filter(); }
  });
  filter();
})();
)js";

} // namespace Vexel::Tool
