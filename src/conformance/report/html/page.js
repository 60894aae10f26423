// Puts the page together from the report that it carries.
"use strict";

fill(document.getElementById("overview"), {}, overview(report));

// With several libraries their comparison comes first, and else what went wrong.
const sections = [comparisonSection, baselineSection, failuresSection, matrixSection, casesSection,
  latenciesSection, repeatsSection].map((make) => make(report)).filter(Boolean);
fill(document.getElementById("main"), {}, sections);

const contents = document.getElementById("contents");
fill(contents, {}, [el("ul", {}, sections.map((node) =>
  el("li", {}, el("a", { href: `#${node.id}` }, node.querySelector("h2").textContent))))]);
contents.hidden = sections.length < 2;
