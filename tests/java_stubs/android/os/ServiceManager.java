// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

package android.os;

import java.util.HashMap;
import java.util.Map;

public final class ServiceManager {
    private static final Map<String, IBinder> sServices = new HashMap<>();

    private ServiceManager() {}

    public static synchronized void addService(String name, IBinder service) {
        sServices.put(name, service);
        ServiceManager.class.notifyAll();
    }

    /** What the platform does by itself when the service's process ends. */
    public static synchronized void removeService(String name) {
        sServices.remove(name);
    }

    /** Null for an interrupted thread. */
    public static synchronized IBinder waitForService(String name) {
        while (!sServices.containsKey(name)) {
            try {
                ServiceManager.class.wait();
            } catch (InterruptedException e) {
                return null;
            }
        }
        return sServices.get(name);
    }
}
