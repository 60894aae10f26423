// Puts the page together from the report that it carries.
"use strict";

const report = JSON.parse(document.getElementById("report").textContent);

fill(document.getElementById("overview"), {}, overview(report));

const sections = [matrixSection, failuresSection, comparisonSection, casesSection, latenciesSection,
  repeatsSection].map((make) => make(report)).filter(Boolean);
// What went wrong comes before what did not.
const isUrgent = (node) => node.id === "failures";
const inOrder = [...sections.filter(isUrgent), ...sections.filter((node) => !isUrgent(node))];
fill(document.getElementById("main"), {}, inOrder);

const contents = document.getElementById("contents");
fill(contents, {}, [el("ul", {}, inOrder.map((node) =>
  el("li", {}, el("a", { href: `#${node.id}` }, node.querySelector("h2").textContent))))]);
contents.hidden = inOrder.length < 2;
