// node tests/openapi/check.mjs
// Checks that docs/openapi.yaml is valid OpenAPI, that its schemas are schemas, that each of its examples is what its schema
// says, and that it names the same paths, methods and problems as the service.
import { readFileSync } from 'node:fs';
import { Validator } from '@seriousme/openapi-schema-validator';
import Ajv from 'ajv/dist/2020.js';
import addFormats from 'ajv-formats';

const read = (path) => readFileSync(new URL(`../../${path}`, import.meta.url), 'utf8');
const failures = [];
let examples = 0;

const validator = new Validator();
const { valid, errors } = await validator.validate(read('docs/openapi.yaml'));
if (!valid) {
    console.log('docs/openapi.yaml:', errors);
    process.exit(1);
}

const ajv = addFormats.default(new Ajv({ allErrors: true, allowUnionTypes: true }));

/** Compiles `schema` and tries each example with it. */
function tryExamples(where, schema, values) {
    const matches = ajv.compile(schema);
    for (const value of values) {
        ++examples;
        if (!matches(value)) failures.push(`${where}: ${ajv.errorsText(matches.errors)}`);
    }
}

function walk(where, node) {
    if (typeof node !== 'object' || node === null) return;
    if (node.schema) tryExamples(where, node.schema, 'example' in node ? [node.example] : []);
    if (Array.isArray(node.examples)) tryExamples(where, node, node.examples);
    for (const [name, child] of Object.entries(node))
        if (name !== 'example' && name !== 'examples') walk(`${where}/${name}`, child);
}

function compare(what, described, served) {
    for (const name of described) if (!served.includes(name)) failures.push(`described, not served: ${what} ${name}`);
    for (const name of served) if (!described.includes(name)) failures.push(`served, not described: ${what} ${name}`);
}

const description = validator.resolveRefs();
walk('', description);

const served = [...read('service/http/routes.cpp').matchAll(/\{"([A-Z]+)",\s+"(\S+)",/g)].map((route) => `${route[1]} ${route[2]}`);
const described = Object.entries(description.paths).flatMap(([path, item]) =>
    Object.keys(item).filter((name) => name !== 'parameters').map((method) => `${method.toUpperCase()} ${path}`));
compare('path', described, served);

const problems = [...read('service/http/problem.h').matchAll(/\{\d{3}, "([a-z-]+)"/g)].map((problem) => `/problemas/${problem[1]}`);
compare('problem', description.components.schemas.Problema.properties.type.enum, problems);

failures.forEach((failure) => console.log('docs/openapi.yaml:', failure));
if (examples === 0 || served.length === 0 || problems.length === 0) throw new Error('nothing was checked');
console.log(`${described.length} operations and ${examples} examples of docs/openapi.yaml checked, ${failures.length} failures`);
process.exit(failures.length > 0 ? 1 : 0);
