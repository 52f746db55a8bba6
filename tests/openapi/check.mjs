// node tests/openapi/check.mjs
// Checks that docs/openapi.yaml is valid OpenAPI, that its schemas are schemas, that each of its examples is what its schema
// says.
import { readFileSync } from 'node:fs';
import { Validator } from '@seriousme/openapi-schema-validator';
import Ajv from 'ajv/dist/2020.js';
import addFormats from 'ajv-formats';

const failures = [];
let examples = 0;

const validator = new Validator();
const { valid, errors } = await validator.validate(readFileSync(new URL('../../docs/openapi.yaml', import.meta.url), 'utf8'));
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

const description = validator.resolveRefs();
walk('', description);

failures.forEach((failure) => console.log('docs/openapi.yaml:', failure));
if (examples === 0) throw new Error('nothing was checked');
console.log(`${examples} examples of docs/openapi.yaml checked, ${failures.length} failures`);
process.exit(failures.length > 0 ? 1 : 0);
