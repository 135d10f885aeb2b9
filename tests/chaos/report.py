"""The figures of a run, and what of them is wrong."""


def figures(scene):
    """(lines to print, problems) of a scene that was drained, or of one that failed on the way."""
    ledger, problems = scene.ledger, []
    totals = ledger.totals()
    lines = [f"messages: {sum(totals.values())} published, " + ", ".join(
        f"{count} {name}" for name, count in totals.items() if count)]
    lost = [f"{application}: {ledger.describe(message_id)}"
            for application, message_id in ledger.outstanding(ledger.marks()) if application]
    letters = scene.dead_letters()
    bound = scene.duplicate_bound()
    kills = ", ".join(f"{kind} {count}" for kind, count in sorted(scene.kills.items())) or "none"
    lines += [f"kills: {kills}",
              f"lost: {len(lost)}",
              f"dead letters: {len(letters)}",
              f"arrived though not confirmed: {ledger.unconfirmed_arrivals()}",
              f"bindings checked: {scene.bindings_checked} in {scene.checks} comparisons",
              f"configurations published: {scene.plane.published}, asked for by the agent: {scene.plane.sync_requests}",
              "application  deliveries  duplicates (bound)  first deliveries out of order  longest gap"]
    for name, application in scene.applications.items():
        lines.append(f"{name:<11}  {ledger.deliveries[name]:>10}  {ledger.duplicates[name]:>10} "
                     f"{'(' + str(bound) + ')':>7}  {ledger.swaps[name]:>29}  {application.gaps.longest:>9.1f} s")
        if ledger.duplicates[name] > bound:
            problems.append(f"{name} got {ledger.duplicates[name]} duplicates, more than {bound}")
    if totals["returned"]:
        problems.append(f"{totals['returned']} messages to topics that stay were returned")
    for what, found in (("lost", lost), ("dead letters", letters), ("strays", ledger.strays)):
        if found:
            problems.append(f"{len(found)} {what}:\n    " + "\n    ".join(found[:20]))
    return lines, problems
