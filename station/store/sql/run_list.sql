SELECT r.run, u.serial, r.plan, s.name AS station, r.place_name AS place, r.started, r.seconds, r.verdict, r.attempt,
       r.failed_step, r.failure, r.cause, r.operator, r.reference
FROM runs r JOIN stations s ON s.id = r.station LEFT JOIN units u ON u.id = r.unit
