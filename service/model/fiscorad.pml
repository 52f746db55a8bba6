/* The rules of fiscorad, with everything around it that can go wrong, for the model checker spin: scripts/model tries every
 * order of events with a few crashes and faults, and shows the steps that lead to a mistake, if there is one.
 * The properties are the assertions, each with its name on its line, and `settles` at the end.
 *
 *   here                                   in the code
 *   Journal disk                           the tables documents, attempts and devices; each `atomic` is one commit at most
 *   service: what a crash clears           Dispatcher (step, resolve, judgeByReading, send), Inquiry
 *   PROVES                                 rules::bookingIn, Journal::isBooked
 *   heard, said, weigh                     rules::afterStoredAnswer
 *   judge                                  rules::conclude, rules::afterNotBooked
 *   STANDS, explain                        rules::standingOf, rules::afterReading, Journal::confirm
 *   sameTerminal                           Equipment::connection
 *   misfortune: backup, restore            backUp, restore
 *
 * Left out: decisions of people other than to confirm a device, operations that book nothing, the activation code, pauses
 * and timeouts as numbers, and a second host. Taken for granted: the device has finished with a request when the
 * operation's timeout has passed; no device is swapped between the last look at the terminal and the call; the shown
 * last document is true for sales; another program's document never has the content of ours. Two sales with the same
 * content (ALIKE) may get each other's documents, never one document for both.
 */

/* ---- which world: scripts/model lists the combinations that it runs ---- */
#ifndef FAULTS
#define FAULTS 2        /* in all: lost or late answers, restarts, unplugging, another program's calls */
#endif
#ifndef CRASHES
#define CRASHES 1       /* of the service */
#endif
#ifndef RESTORES
#define RESTORES 0      /* 1: an old backup may take the journal's place */
#endif
#ifndef DOCUMENTS
#define DOCUMENTS 2     /* 1 or 2 */
#endif
#ifndef CANCELLATION
#define CANCELLATION 0  /* 1: document 1 is a cancellation */
#endif
#ifndef ALIKE
#define ALIKE 0         /* 1: both documents have the same content */
#endif
#ifndef OTHER_PROGRAM
#define OTHER_PROGRAM 1 /* 0: nobody else uses the devices */
#endif

/* ---- the rules, each of which -DWITHOUT=RULE drops ---- */
#ifndef WITHOUT
#define WITHOUT 0
#endif
#define without(RULE) (WITHOUT == RULE)
#define SAME_KEY 1         /* a key that comes again is the document that it was */
#define DISK_FIRST 2       /* an outcome is on disk before a till hears of it */
#define WITHDRAWN_STAYS 3  /* an attempt begins only if its document is still queued */
#define ATTEMPT_FIRST 4    /* the attempt is on disk before its call */
#define TERMINAL_CHECK 5   /* nothing is sent if the terminal is not the one that was read */
#define QUESTIONS_ONLY 6   /* nothing but questions while an attempt is open */
#define OWN_SESSION 7      /* an answer bears the number of the call, or of the session asked about */
#define SERIAL_CHECK 8     /* answers count only from the attempt's device */
#define CONTENT_CHECK 9    /* a booking has the content that was sent */
#define LATER_CHECK 10     /* a booking is later than the attempt's last document */
#define UNIQUE_KEY 11      /* a booking stands in one row only */
#define TIMEOUT_FIRST 12   /* answers before the operation's timeout prove nothing against a booking */
#define LAST_DOCUMENT 13   /* not booked, or refused: only if the device's last document is still the attempt's */
#define REFUSAL_CHECK 14   /* a stored refusal needs the same proof as an unknown session: another may have got it */
#define CANCELLATIONS 15   /* a cancellation is never proved not booked */
#define THREE_TIMES 16     /* after three attempts proved not booked a person decides */
#define STANDING_CHECK 17  /* nothing is sent to a device with an unexplained document until a person confirms */
#define RESTORED_WAIT 18   /* what a restored journal holds as queued or open is left to a person */
#define SESSION_JUMP 19    /* a restored journal goes on with session numbers that were never used */
#define PAUSE 20           /* after a call without its own answer there is a pause before the next */
#define KEEP_ASKING 21     /* questions go on for as long as it takes */

#define absent 0  /* the journal has no such key */
mtype:state = { na_fila, enviada, incerta, emitida, recusada, retirada, a_decidir,
                unprotected /* its key is unknown to the restored backup: nothing is promised */ };
mtype:step = { idle, chosen, committed, calling, learned };
mtype:said = { nothing, unknown, refusal, other };

#define NUMBERS 6    /* documents that a device issues at most */
#define NO_DEVICE 2
#define OTHERS 99    /* another program's document, or its session number */
#define QUESTION 98  /* on the line: the late answer to a question */
#define REFUSED 97   /* an answer; others are the number of the document booked, or 0: unknown session */

typedef Journal {
    mtype:state state[2];  /* by document, with its last attempt: session, device, the device's last document */
    byte session[2]; byte serial[2]; byte before[2];
    byte notBooked[2];
    byte booked[2];        /* the number that the device has given it */
    bool known[2]; byte explained[2]; byte cancelled[2];  /* by device */
    byte sessions;         /* numbers taken */
};
typedef Device {
    byte issued;              /* how many documents it has booked */
    byte last;                /* the last one that it shows */
    byte owner[NUMBERS + 1];  /* whose content each has: document + 1 or OTHERS */
    byte held; byte heldFor;  /* the session and document + 1 of the request that it is working on; 0: none */
    byte session[2]; byte answer[2];  /* the sessions that it remembers, newest first */
};

Journal disk, backup, none;
Device device[2];
byte here;              /* the device that is plugged in */
byte line, lineAnswer;  /* the session of an answer that has come, or QUESTION; 0: none */
byte faults = FAULTS, crashes = CRASHES, backups = RESTORES, restores = RESTORES;

/* The service's memory. */
mtype:step step = idle;
byte current, booking; mtype:state outcome;           /* of `step` */
bool sameTerminal, valid, halted; byte greeted;       /* the terminal; its reading, its undecided documents asked about */
byte readSerial, readLast;
byte question; bool timeoutPassed; byte heard; mtype:said said = nothing;  /* about the open attempt */
bool paused;

/* What nobody in this world knows: it is for the assertions. */
bool isBooked[2];
mtype:state told[2];   /* to the till */
byte usedSession;      /* the highest */
byte alarmed[2];       /* by device: the last document that a person was told of, or the first ever seen */

#define SALE(d) (d == 0 || !CANCELLATION)
#define OPEN(d) (disk.state[d] == enviada || disk.state[d] == incerta)
#define ANY_OPEN (OPEN(0) || OPEN(1))
#define ANY_QUEUED (disk.state[0] == na_fila || disk.state[1] == na_fila)
#define the_open (OPEN(0) -> 0 : 1)
#define ASKING (step == idle && !paused && disk.state[the_open] == incerta && here != NO_DEVICE)
#define MAY_SEND (step == idle && !paused && (!ANY_OPEN || without(QUESTIONS_ONLY)) && here != NO_DEVICE)
#define HELD(d) (device[0].held == disk.session[d] || device[1].held == disk.session[d])
#define FINAL(s) (s == emitida || s == recusada || s == retirada)
#define ON_DISK(d) (!FINAL(told[d]) || told[d] == disk.state[d] || (RESTORES && !restores))
#define SETTLED(d) (disk.state[d] != na_fila && !OPEN(d))
#define HAS_CONTENT(d, v, n) (device[v].owner[n] == d + 1 || (ALIKE && device[v].owner[n] != OTHERS))
#define IN_ANOTHER_ROW(d, v, n) (disk.state[1 - d] == emitida && disk.serial[1 - d] == v && disk.booked[1 - d] == n)
/* What an answer with number n from device v is to document d. */
#define PROVES(d, v, n) (n != 0 && n != REFUSED && (disk.serial[d] == v || without(SERIAL_CHECK)) && \
    (HAS_CONTENT(d, v, n) || without(CONTENT_CHECK)) && (n > disk.before[d] || without(LATER_CHECK)) && \
    (!IN_ANOTHER_ROW(d, v, n) || without(UNIQUE_KEY)))
#define IS_OWN(d) (line == disk.session[d] || (line && line != QUESTION && without(OWN_SESSION)))
/* How the last document n of device v stands to the journal. */
#define EXPLAINED(v, n) (n == disk.explained[v] || (n && n == disk.cancelled[v]))
#define NEXT(v, n) (n == disk.explained[v] + 1 || (disk.cancelled[v] && n == disk.cancelled[v] + 1))
#define STANDS(v, n, attempts) (!disk.known[v] || EXPLAINED(v, n) || (attempts == 1 && NEXT(v, n)) || \
    without(STANDING_CHECK))
#define MAY_HAVE_BOOKED(d, v) (disk.state[d] == a_decidir && disk.session[d] && disk.serial[d] == v && \
    disk.before[d] == disk.explained[v])

inline forgetReading() { valid = false; readSerial = 0; readLast = 0 }
inline forgetInquiry() { question = 0; timeoutPassed = false; heard = 0; said = nothing }
inline forgetTerminal() { sameTerminal = false; halted = false; greeted = 0; question = 0; forgetReading() }
inline finish() { step = idle; current = 0; outcome = absent; booking = 0 }
inline crash() { finish(); forgetTerminal(); forgetInquiry(); paused = false }
inline unanswered() { question = 0; paused = !without(PAUSE) }

/* One question. It takes the answer of an earlier call if that has come late, and then its own comes late. */
inline ask(ANSWERED) {
    forgetReading();
    if
    :: line -> line = QUESTION; lineAnswer = 0; unanswered()
    :: !line -> ANSWERED = true
    :: !line && faults -> faults--; line = QUESTION; unanswered()
    fi
}
inline read() {
    ask(own);
    if :: own -> sameTerminal = true; valid = true; readSerial = here; readLast = device[here].last :: else fi;
    own = false
}
inline storedAnswer(D) {  /* into n */
    if
    :: device[here].session[0] == disk.session[D] -> n = device[here].answer[0]
    :: device[here].session[0] != disk.session[D] && device[here].session[1] == disk.session[D] -> n = device[here].answer[1]
    :: else -> n = 0
    fi
}
inline learn(D, STATE, N) {
    step = learned; current = D; outcome = STATE; booking = N;
    if :: without(DISK_FIRST) -> told[D] = STATE :: else fi
}
inline weigh(WHAT) {
    if
    :: heard < 2 && (timeoutPassed || without(TIMEOUT_FIRST)) ->
        heard++;
        said = (said == nothing || said == WHAT -> WHAT : (said == other || WHAT == other -> other : refusal))
    :: else -> if :: WHAT == refusal && said == nothing -> said = refusal :: else fi  /* it may be forgotten */
    fi
}
/* The reading counts as explained from now on, with an alarm. */
inline explain() {
    disk.known[readSerial] = true; disk.explained[readSerial] = readLast; disk.cancelled[readSerial] = 0;
    alarmed[readSerial] = readLast
}
inline leaveToAPerson(D) {
    disk.state[D] = a_decidir;
    if :: readSerial == disk.serial[D] && readLast != disk.explained[readSerial] -> explain() :: else fi;
    forgetInquiry()
}
inline judge(D) {
    if
    :: readSerial != disk.serial[D] && !without(SERIAL_CHECK) -> leaveToAPerson(D)
    :: else ->
        if
        :: !STANDS(readSerial, readLast, 1) -> halted = true
        :: STANDS(readSerial, readLast, 1) && heard < 2 -> question = 1
        :: STANDS(readSerial, readLast, 1) && heard == 2 ->
            if
            :: said == unknown && (SALE(D) || without(CANCELLATIONS)) &&
               (readLast == disk.before[D] || without(LAST_DOCUMENT)) ->
                disk.notBooked[D]++;
                disk.state[D] = (disk.notBooked[D] < 3 || without(THREE_TIMES) -> na_fila : a_decidir);
                forgetInquiry()
            :: said == refusal && SALE(D) && (readLast == disk.before[D] || without(LAST_DOCUMENT)) ->
                learn(D, recusada, 0)
            :: else -> leaveToAPerson(D)
            fi
        fi
    fi
}

active proctype service() {
    bool own; byte d, n;
end:
    do
    :: atomic { paused -> paused = false; line = 0; lineAnswer = 0 }

    /* -- an open attempt: only questions, in rounds: the device's reading, the session, the last booking -- */
    :: atomic { step == idle && disk.state[the_open] == enviada -> disk.state[the_open] = incerta }
    :: atomic { ASKING && question == 0 && !valid && !without(KEEP_ASKING) -> read() }
    :: atomic { ASKING && question == 0 && valid && !halted -> d = the_open; judge(d); d = 0 }
    :: atomic { ASKING && question == 1 ->
        d = the_open;
        if
        :: line && IS_OWN(d) -> own = true; n = lineAnswer; line = QUESTION; lineAnswer = 0; forgetReading()
        :: else -> ask(own); storedAnswer(d)
        fi;
        if
        :: own && PROVES(d, here, n) -> learn(d, emitida, n)
        :: own && n == REFUSED && without(REFUSAL_CHECK) -> learn(d, recusada, 0)
        :: own && !PROVES(d, here, n) && !(n == REFUSED && without(REFUSAL_CHECK)) ->
            question = 2;
            if :: n == 0 -> weigh(unknown) :: n == REFUSED -> weigh(refusal) :: else -> weigh(other) fi
        :: else
        fi;
        own = false; n = 0; d = 0 }
    :: atomic { ASKING && question == 2 ->  /* the answer bears no session number of the attempt, and may be missing */
        d = the_open; ask(own); n = device[here].issued;
        if
        :: own && PROVES(d, here, n) -> learn(d, emitida, n)
        :: own -> question = 0
        :: else
        fi;
        own = false; n = 0; d = 0 }

    /* -- nothing open: read the device, ask it about what a person is to decide, send -- */
    :: atomic { MAY_SEND && !valid && (greeted < 2 || ANY_QUEUED) -> read() }
    :: atomic { MAY_SEND && valid && greeted < 2 ->
        d = greeted;
        if
        :: disk.state[d] == a_decidir && disk.session[d] && disk.serial[d] == readSerial ->
            ask(own); storedAnswer(d);
            if :: own -> greeted++ :: else fi;
            if :: own && PROVES(d, here, n) -> learn(d, emitida, n) :: else fi
        :: else -> greeted++
        fi;
        own = false; n = 0; d = 0 }
    :: atomic { MAY_SEND && valid && greeted == 2 && !halted && ANY_QUEUED ->
        if
        :: !STANDS(readSerial, readLast, MAY_HAVE_BOOKED(0, readSerial) + MAY_HAVE_BOOKED(1, readSerial)) -> halted = true
        :: else ->
            if :: disk.state[0] == na_fila -> current = 0 :: disk.state[1] == na_fila -> current = 1 fi;
            step = chosen; disk.sessions++;
            if
            :: !disk.known[readSerial] || !(EXPLAINED(readSerial, readLast) || without(STANDING_CHECK)) -> explain()
            :: else
            fi
        fi }
    :: atomic { step == chosen && (disk.state[current] != na_fila && !without(WITHDRAWN_STAYS) || !valid) -> finish() }
    :: atomic { step == chosen && (disk.state[current] == na_fila || without(WITHDRAWN_STAYS)) && valid ->
        d = readSerial; n = readLast;
        assert(n == 0 || device[d].owner[n] != OTHERS || alarmed[d] == n);  /* an unexplained document raises an alarm */
        n = 0; d = current; disk.session[d] = disk.sessions; disk.serial[d] = readSerial; disk.before[d] = readLast;
        disk.state[d] = (without(ATTEMPT_FIRST) -> na_fila : enviada);
        step = committed; forgetReading(); d = 0 }
    :: atomic { step == committed && !sameTerminal && !(without(TERMINAL_CHECK) && here != NO_DEVICE) ->
        disk.state[current] = na_fila; finish() }
    :: atomic { step == committed && here != NO_DEVICE && (sameTerminal || without(TERMINAL_CHECK)) ->
        d = current;
        assert(disk.session[d] > usedSession);  /* no session number is used twice */
        assert(!OPEN(1 - d));                   /* nothing but questions while an attempt is open */
        assert(disk.notBooked[d] < 3);          /* nobody but a person sends a document a fourth time */
        usedSession = disk.session[d];
        if
        :: !device[here].held -> device[here].held = disk.session[d]; device[here].heldFor = d + 1
        :: !device[here].held && faults -> faults--  /* the request is lost */
        :: device[here].held                         /* it is busy with another program's, or one that was left */
        fi;
        step = calling; forgetInquiry(); d = 0 }
    :: atomic { step == calling && line ->
        d = current; n = lineAnswer;
        if
        :: IS_OWN(d) && n == REFUSED -> learn(d, recusada, 0); line = 0; lineAnswer = 0
        :: IS_OWN(d) && PROVES(d, here, n) -> learn(d, emitida, n); line = 0; lineAnswer = 0
        :: else -> disk.state[d] = incerta; line = QUESTION; lineAnswer = 0; unanswered(); finish()
        fi;
        d = 0; n = 0 }
    :: atomic { step == calling && !line && (!HELD(current) || here != disk.serial[current]) ->
        disk.state[current] = incerta; unanswered(); finish() }
    :: atomic { step == calling && !line && HELD(current) && faults ->  /* the answer will be late */
        faults--; disk.state[current] = incerta; unanswered(); finish() }

    :: atomic { step == learned ->
        d = current;
        if
        :: outcome == emitida ->
            n = disk.serial[d];
            assert(HAS_CONTENT(d, n, booking));      /* an answer counts only for its own attempt */
            assert(booking > disk.before[d]);        /* no document gets a booking from before it was sent */
            assert(!IN_ANOTHER_ROW(d, n, booking));  /* a booking stands for one document only */
            n = 0; disk.booked[d] = booking;
            if
            :: SALE(d) -> disk.explained[disk.serial[d]] = booking; disk.cancelled[disk.serial[d]] = 0
            :: else -> disk.cancelled[disk.serial[d]] = booking
            fi
        :: else ->
            assert(!isBooked[d] && !HELD(d));        /* a document called refused is not booked */
            disk.serial[d] = 0
        fi;
        disk.state[d] = outcome; told[d] = outcome;
        disk.session[d] = 0; disk.before[d] = 0; disk.notBooked[d] = 0;  /* of no more use */
        forgetInquiry(); finish(); d = 0 }
    od
}

inline remember(V, NUMBER, ANSWER) {
    device[V].session[1] = device[V].session[0]; device[V].answer[1] = device[V].answer[0];
    device[V].session[0] = NUMBER; device[V].answer[0] = ANSWER
}
inline release(V) { device[V].held = 0; device[V].heldFor = 0 }
proctype equipment(byte v) {
    byte d, n;
end:
    do
    :: atomic { device[v].held ->
        d = device[v].heldFor - 1;
        if
        :: assert(!isBooked[d]);                             /* a key is booked once at most */
            assert(told[d] != retirada);                     /* a withdrawn document is not booked */
            isBooked[d] = true;
            device[v].issued++; n = device[v].issued; device[v].owner[n] = d + 1;
            if :: device[v].last = n :: !SALE(d) /* some devices do not count cancellations */ fi
        :: n = REFUSED
        fi;
        remember(v, device[v].held, n);
        if
        :: here == v -> line = device[v].held; lineAnswer = n
        :: here == v && faults -> faults--  /* the answer is lost */
        :: here != v
        fi;
        release(v); n = 0; d = 0 }
    od
}

inline submit(D) { disk.state[D] = na_fila; told[D] = na_fila }
inline withdraw(D) { disk.state[D] = retirada; told[D] = retirada }
active proctype tills() {
end:
    do
    :: atomic { disk.state[0] == absent || (told[0] == emitida && without(SAME_KEY)) -> submit(0) }
    :: atomic { disk.state[0] == absent || disk.state[0] == na_fila -> withdraw(0) }
    :: atomic { DOCUMENTS == 2 && disk.state[1] == absent -> submit(1) }
    :: atomic { DOCUMENTS == 2 && (disk.state[1] == absent || disk.state[1] == na_fila) -> withdraw(1) }
    :: told[0] = told[0]  /* asks, at any time: so no state is the last one */
    od
}
active proctype hands() { end: do :: atomic { here == NO_DEVICE -> if :: here = 0 :: here = 1 fi } od }
active proctype person() { end: do :: atomic { halted -> explain(); halted = false; forgetReading() } od }
active proctype time() {
end:
    do
    :: atomic { step == idle && disk.state[the_open] == incerta && !timeoutPassed && !HELD(the_open) ->
        timeoutPassed = true }
    od
}

inline copyRow(TO, FROM, I) {
    TO.state[I] = FROM.state[I]; TO.session[I] = FROM.session[I]; TO.serial[I] = FROM.serial[I];
    TO.before[I] = FROM.before[I]; TO.notBooked[I] = FROM.notBooked[I]; TO.booked[I] = FROM.booked[I];
    TO.known[I] = FROM.known[I]; TO.explained[I] = FROM.explained[I]; TO.cancelled[I] = FROM.cancelled[I]
}
inline restoreRow(I) {
    copyRow(disk, backup, I); copyRow(backup, none, I);
    if
    :: disk.state[I] == absent && told[I] -> disk.state[I] = unprotected
    :: (disk.state[I] == na_fila || OPEN(I)) && !without(RESTORED_WAIT) -> disk.state[I] = a_decidir
    :: else
    fi;
    if :: told[I] == emitida || told[I] == recusada -> told[I] = na_fila :: else fi
}
inline restart(V) {  /* it keeps its books, and forgets its sessions and what it was doing */
    remember(V, 0, 0); remember(V, 0, 0); release(V)
}
inline useByAnother(V) {
    if
    :: device[V].issued < NUMBERS ->
        device[V].issued++; n = device[V].issued; device[V].last = n; device[V].owner[n] = OTHERS
    :: n = REFUSED
    fi;
    if
    :: remember(V, OTHERS, n)
    :: disk.session[0] -> remember(V, disk.session[0], n)
    :: disk.session[1] -> remember(V, disk.session[1], n)
    fi;
    n = 0
}
active proctype misfortune() {
    byte n;
end:
    do
    :: atomic { crashes ->
        assert(ON_DISK(0) && ON_DISK(1));  /* what a till was told is on disk */
        crashes--; crash() }
    :: atomic { faults && here != NO_DEVICE -> faults--; here = NO_DEVICE; forgetTerminal(); line = 0; lineAnswer = 0 }
    :: atomic { faults && (device[0].session[0] || device[0].held) -> faults--; restart(0) }
    :: atomic { faults && (device[1].session[0] || device[1].held) -> faults--; restart(1) }
    :: atomic { faults && OTHER_PROGRAM -> faults--; useByAnother(0) }
    :: atomic { faults && OTHER_PROGRAM -> faults--; useByAnother(1) }
    :: atomic { backups ->
        backups--; copyRow(backup, disk, 0); copyRow(backup, disk, 1); backup.sessions = disk.sessions }
    :: atomic { restores && !backups ->
        restores--; crash(); restoreRow(0); restoreRow(1);
        if :: without(SESSION_JUMP) -> disk.sessions = backup.sessions :: else fi;
        backup.sessions = 0 }
    od
}

init { atomic { run equipment(0); run equipment(1) } }

/* Once the faults are over, every document comes to an end, or to a person. */
ltl settles { <>[] (SETTLED(0) && SETTLED(1)) }
