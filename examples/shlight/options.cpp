// The command line: names, help texts, ranges.
#include "options.h"

#include "arguments.h"
#include "failure.h"

std::optional<Options> readOptions(int argc, char** argv) {
    Options options;
    options.ground = false; // without shadows nothing would hold the mesh to it
    std::string type = "closed", window = "none", background = "map";
    bool sky = false;

    CLI::App app{"Puts an environment map into spherical harmonics, says how its energy is spread over the bands, and\n"
                 "renders a mesh in its light. Points are X,Y,Z in the mesh's own coordinates.",
                 "shlight"};
    CameraArguments camera(app, options, options);
    TreeArguments tree(app, options);
    WorkArguments work(app, options);
    app.option_defaults()->always_capture_default();
    app.add_option("MESH", options.mesh,
                   "mesh file (OBJ, PLY, STL, 3DS, glTF... or a dump of raytrace); without one nothing is rendered");
    app.add_option("-o,--output", options.output, "picture of the mesh to write (shlight.png)");
    app.add_option("--maps", options.maps,
                   "picture of the maps to write: original and reconstruction; below them the light that a matt\n"
                   "surface reflects, and where the reconstruction is too bright (orange) or too dark (blue)");

    const char* light = "Light (one of --env and --sky)";
    app.add_option("-e,--env", options.environment, "equirectangular map, PNG (sRGB) or Radiance HDR; row 0 is up")
        ->group(light);
    app.add_flag("--sky", sky, "built-in sky with a sun, clouds and a horizon")->group(light);
    app.add_option("--sun", options.sun, "--sky: degrees of the sun above the horizon")
        ->check(within(-10.0, 90.0))
        ->group(light);
    app.add_option("--turn-env", options.turnEnvironment, "degrees to turn the environment around the mesh")
        ->check(within(-360.0, 360.0))
        ->group(light);
    app.add_option("--save-env", options.saveEnvironment, "write the environment as Radiance HDR")->group(light);

    const char* harmonics = "Harmonics";
    app.add_option("-L,--order", options.order, "highest band")->check(within(0, 15))->group(harmonics);
    app.add_option("--type", type, "evaluation of the basis: closed or recurrence")
        ->check(CLI::IsMember({"closed", "recurrence"}))
        ->group(harmonics);
    app.add_option("--window", window, "lanczos: damp the high bands, against rings around bright spots")
        ->check(CLI::IsMember({"none", "lanczos"}))
        ->group(harmonics);

    camera.addPicture();
    app.add_option("--exposure", options.exposure, "stops brighter or darker than automatic")
        ->check(within(-20.0, 20.0))
        ->group("Picture");
    app.add_option("--background", background, "map: the original; light: what the harmonics keep of it")
        ->check(CLI::IsMember({"map", "light"}))
        ->group("Picture");
    camera.addCamera();

    const char* scene = "Scene";
    app.add_option("--gloss", options.gloss, "share of light that the mesh mirrors")
        ->check(within(0.0, 1.0))
        ->group(scene);
    app.add_option("--shine", options.shine, "exponent of the mirrored lobe: large is sharp")
        ->check(within(1.0, 10000.0))
        ->group(scene);
    app.add_flag("--flat", options.flat, "facets instead of smooth normals")->group(scene);
    tree.add();
    work.add();

    if (!parseArguments(app, argc, argv)) return std::nullopt;
    camera.read();
    tree.read();
    work.read(options.samples);
    if (sky == !options.environment.empty()) throw Failure("one of --env and --sky is needed, and not both");
    options.recurrence = type == "recurrence";
    options.window = window == "lanczos";
    options.sharpBackground = background == "map";
    if (options.mesh.empty() && !options.output.empty()) throw Failure("--output: needs a MESH to render");
    if (options.output.empty()) options.output = "shlight.png";
    return options;
}
