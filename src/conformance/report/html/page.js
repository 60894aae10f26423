// Puts the page together from the report that it carries, compressed.
"use strict";

// A part of the page that is JSON, compressed.
async function embedded(id) {
  const base64 = document.getElementById(id).textContent;
  const bytes = Uint8Array.from(atob(base64), (character) => character.charCodeAt(0));
  const stream = new Blob([bytes]).stream().pipeThrough(new DecompressionStream("deflate"));
  return new Response(stream).json();
}

function showReport(content) {
  report = content;
  fill(document.getElementById("overview"), {}, overview(report));

  // With several libraries their comparison comes first, and else what went wrong.
  const sections = [comparisonSection, baselineSection, failuresSection, matrixSection, casesSection,
    latenciesSection, repeatsSection].map((make) => make(report)).filter(Boolean);
  fill(document.getElementById("main"), {}, sections);

  const contents = document.getElementById("contents");
  fill(contents, {}, [el("ul", {}, sections.map((node) =>
    el("li", {}, el("a", { href: `#${node.id}` }, node.querySelector("h2").textContent))))]);
  contents.hidden = sections.length < 2;
}

if ("DecompressionStream" in window) {
  embedded("report").then(showReport);
} else {
  document.getElementById("main").textContent =
    "This page needs a browser of 2023 or later. The title says the verdict; the JSON report has the rest.";
}
