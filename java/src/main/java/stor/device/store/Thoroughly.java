package stor.device.store;

/** Gives several things back, all of them, whatever fails among the first. */
final class Thoroughly {
    private Thoroughly() {
    }

    /** Something to do with each of several things. */
    interface Action<T, E extends Exception> {
        void run(T thing) throws E;
    }

    /** Does it with each; at the end throws what failed first. */
    static <T, E extends Exception> void forEach(
            Iterable<? extends T> things, Action<T, E> action) throws E {
        Exception failure = null;
        for (T thing : things) {
            try {
                action.run(thing);
            } catch (Exception e) {
                failure = failure == null ? e : failure;
            }
        }
        if (failure != null) {
            throw Thoroughly.<E>asThrown(failure);
        }
    }

    /** The action throws nothing else, but for what needs no declaration. */
    @SuppressWarnings("unchecked")
    private static <E extends Exception> E asThrown(Exception failure) {
        return (E) failure;
    }
}
