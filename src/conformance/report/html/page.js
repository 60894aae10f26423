// Puts the page together from the report that it carries, compressed.
"use strict";

async function embeddedReport() {
  const base64 = document.getElementById("report").textContent;
  const bytes = Uint8Array.from(atob(base64), (character) => character.charCodeAt(0));
  const stream = new Blob([bytes]).stream().pipeThrough(new DecompressionStream("deflate"));
  return new Response(stream).json();
}

function showReport(report) {
  fill(document.getElementById("overview"), {}, overview(report));

  const sections = [matrixSection, failuresSection, comparisonSection, casesSection,
    latenciesSection, repeatsSection].map((make) => make(report)).filter(Boolean);
  // What went wrong comes before what did not.
  const isUrgent = (node) => node.id === "failures";
  const inOrder = [...sections.filter(isUrgent), ...sections.filter((node) => !isUrgent(node))];
  fill(document.getElementById("main"), {}, inOrder);

  const contents = document.getElementById("contents");
  fill(contents, {}, [el("ul", {}, inOrder.map((node) =>
    el("li", {}, el("a", { href: `#${node.id}` }, node.querySelector("h2").textContent))))]);
  contents.hidden = inOrder.length < 2;
}

if ("DecompressionStream" in window) {
  embeddedReport().then(showReport);
} else {
  document.getElementById("main").textContent =
    "This page needs a browser of 2023 or later. The title says the verdict; the JSON report has the rest.";
}
