#!/bin/sh
# Checks the fleet's manifests for Kubernetes against the schemas of its interface, and the unit of its
# workers with systemd's own checker. Fetches the schemas' npm package into a temporary folder.
# usage: scripts/check-manifests.sh
set -eu

root=$(CDPATH='' cd -- "$(dirname -- "$0")/.." && pwd)
deploy=$root/fleet/deploy
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

cd "$folder"
npm install --no-audit --no-fund --ignore-scripts --silent kubernetes-models@4 js-yaml@4
cat >check.js <<'END'
const fs = require("fs");
const path = require("path");
const yaml = require("js-yaml");

let failed = false;
for (const file of process.argv.slice(2)) {
    for (const document of yaml.loadAll(fs.readFileSync(file, "utf8"))) {
        const { apiVersion, kind } = document;
        try {
            const Model = require(`kubernetes-models/${apiVersion}/${kind}`)[kind];
            new Model(document).validate();
            console.log(`${path.basename(file)}: ${apiVersion} ${kind} is valid`);
        } catch (error) {
            console.error(`${path.basename(file)}: ${apiVersion} ${kind}: ${error.message}`);
            failed = true;
        }
    }
}
process.exit(failed ? 1 : 0);
END
# The values are for a chart and no manifest.
find "$deploy/kubernetes" -name '*.yaml' ! -name redis-values.yaml -exec node check.js {} +

if command -v systemd-analyze >/dev/null 2>&1; then
    # The command of an installed package need not be here.
    sed 's,^ExecStart=[^ ]*,ExecStart=/bin/true,' "$deploy/clipweir-fleet@.service" >"clipweir-fleet@1.service"
    systemd-analyze verify "$folder/clipweir-fleet@1.service"
    systemd-analyze security --offline=true --threshold=25 "$folder/clipweir-fleet@1.service" >report ||
        { cat report >&2 && exit 1; }
    echo 'clipweir-fleet@.service: is valid and hardened'
fi
