package stor.device.replay;

import java.util.Random;
import stor.device.store.BlockStore.Step;

/** Ends every Nth flush somewhere in its first steps. One flush runs at a time. */
final class FlushFaults {
    private static final int MAX_STEPS = 20;

    private final int every;
    private final Random random;
    private int begun;
    private int countdown;

    /** What ends a flush. */
    static final class InjectedFault extends RuntimeException {
        private static final long serialVersionUID = 1L;

        InjectedFault() {
            super("injected in the middle of a flush");
        }
    }

    /** Never if {@code every} is 0. */
    FlushFaults(int every, long seed) {
        this.every = every;
        random = new Random(seed);
    }

    void at(Step step) {
        if (step == Step.FLUSH_BEGUN) {
            begun++;
            if (every > 0 && begun % every == 0) {
                countdown = 1 + random.nextInt(MAX_STEPS);
            }
        } else if (step != Step.COPIED && countdown > 0 && --countdown == 0) {
            throw new InjectedFault();
        }
    }
}
