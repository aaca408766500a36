"""What runs outside the guest: fetches it, boots it, and does what its scenarios ask for."""
